// The whole command line of kestactl: what may be given, and which action that chooses.
#pragma once

#include <optional>

#include "command.h"

namespace kestactl {

class CommandLine {
public:
    // For any arguments.
    CommandLine() : CommandLine(0, nullptr) {}
    // For these alone, with the commands that they can mean: all of them, unless the first word is one. What is made for
    // nothing is most of a short command's work.
    CommandLine(int argc, const char *const *argv);

    // The answer, where the arguments ask for nothing but help or the version; otherwise an action
    // is chosen. Throws Failure: wrong usage.
    std::optional<Result> parse(int argc, const char *const *argv);

    const Globals &globals() const { return globals_; }
    const Action &action() const { return action_; }

private:
    options::Program program_;
    Globals globals_;
    Action action_;
};

}  // namespace kestactl
