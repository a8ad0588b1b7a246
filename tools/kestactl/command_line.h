// The whole command line of kestactl: what may be given, and which action that chooses.
#pragma once

#include <optional>

#include "command.h"

namespace kestactl
{

class CommandLine
{
public:
    CommandLine();
    CommandLine(const CommandLine &) = delete;
    CommandLine &operator=(const CommandLine &) = delete;

    // The answer, where the arguments ask for nothing but help or the version; otherwise an action
    // is chosen. Throws Failure: wrong usage.
    std::optional<Result> parse(int argc, const char *const *argv);

    const Globals &globals() const { return globals_; }
    const Action &action() const { return action_; }

private:
    CLI::App app_;
    Globals globals_;
    Action action_;
};

}  // namespace kestactl
