// The one rule for verbs that change what all controllers share: who does not hold the command lock honours it.
#pragma once

#include <string>
#include <vector>

namespace engine {

struct LockRule {
    int wait = 0;                      // seconds
    std::vector<std::string> ignored;  // controllers whose locks the operator has said not to mind
};

// Returns when no other controller holds the command lock. A lock of this controller is that of a command around
// this one. Throws Failure: another one's is held after the time is over, or a signal came, or the locks
// can't be read and not all other controllers' are ignored.
void honour_command_lock(const LockRule &rule);

}  // namespace engine
