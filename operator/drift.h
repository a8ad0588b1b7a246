// How the files of this system have changed since they were saved.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "file_difference.h"

namespace engine {

enum class DriftState {
    none,     // the files are as they were saved
    drifted,  // some differ
    unknown,  // it can't be told which group was saved, or the group is defined no more
    unreadable,
};

struct Drift {
    DriftState state = DriftState::unknown;
    std::string group;  // empty: unknown
    std::size_t added = 0;
    std::size_t removed = 0;
    std::size_t changed = 0;
    std::vector<std::string> paths;  // the first ones
    std::string text;                // one sentence
};

inline constexpr std::size_t most_drift_paths = 20;

// "none", "drifted"...
const char *name_of(DriftState state);

// Of the group whose archive is the backup on flash. Throws nothing that it can tell.
Drift find_drift();

}  // namespace engine
