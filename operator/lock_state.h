// Who holds which lock, and how that is said: everywhere in the same way.
#pragma once

#include <kesta/kesta.h>
#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace engine {

// One command lock, as its slot in the NV image tells it.
struct CommandLock {
    int controller;
    int status;                // KESTA_LOCK_STATUS_*
    std::int64_t identifier;   // the second in which it was first taken
    std::int64_t fresh_until;  // identifier + 600, or later if it was renewed
    pid_t gone_holder = 0;     // the process of this controller that held it, and has ended

    bool suspended() const { return status == KESTA_LOCK_STATUS_FREE; }

    // A lock is fresh for ten minutes after it was taken or renewed; only of a process of this controller it is known
    // whether it is gone.
    bool looks_alive() const;
};

struct LockState {
    std::array<KESTA_COMMAND_LOCKINFO, KESTA_CONTROLLERS> slots{};
    std::string group;
    std::vector<CommandLock> held;  // suspended ones included
};

// Reads the slots without taking any lock: one transfer is whole. Throws Failure.
LockState read_lock_state();

// "CNT1 holds a type-1 lock since ... for group network, identifier 42; it looks alive"
std::string describe(const CommandLock &lock, const std::string &group);

// Its type in one word, for programs: "type1", "backup", "suspended".
const char *type_word(const CommandLock &lock);

// The one command that clears a lock.
std::string clearing_command(const CommandLock &lock);

// Refuses because of a lock. Throws Failure with Exit::locked.
[[noreturn]] void refuse_locked(std::string_view message, const LockState &state, int controller);

}  // namespace engine
