// What can be told of this controller without reading an archive: for programs that watch it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "change_log.h"
#include "drift.h"
#include "findings.h"
#include "lock_state.h"

namespace engine {

struct KeptArchive {
    std::string place;  // "flash:backup"
    bool is_there = false;
    std::uint64_t bytes = 0;
    std::int64_t modified = 0;
};

struct InnerLockHolder {
    int controller = 0;
    std::int64_t token = 0;
};

struct ControllerState {
    std::int64_t now = 0;
    int controller = -1;
    std::optional<NamesInForce> names;
    std::vector<KeptArchive> archives;  // on flash
    std::size_t generations = 0;
    std::uint64_t generation_bytes = 0;
    std::optional<std::vector<CommandLock>> command_locks;
    std::optional<std::vector<InnerLockHolder>> inner_lock;
    std::optional<std::vector<std::string>> leftovers;
    bool restore_is_unfinished = false;
    std::optional<Change> last_save;
    std::optional<Change> last_change;
    std::vector<std::string> unanswered;  // what could not be had, in words
    // Only where verify was run.
    std::optional<Findings> findings;
    std::optional<Drift> drift;
};

// Every question is asked for itself: one without an answer is named, and the others are told.
ControllerState controller_state();

// The same with what verify finds.
ControllerState verified_state();

}  // namespace engine
