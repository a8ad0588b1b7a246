// Scripts of a group's definition, run the way the appliance runs them, but watched.
#pragma once

#include <string>
#include <vector>

#include "held_command.h"

namespace engine {

struct ScriptContext {
    std::string event;            // KESTA_EVENT
    std::string platform_status;  // KESTA_VRBGETSTAT
    int timeout = 600;            // seconds, then the script is stopped
};

// How a script ended.
struct ScriptEnd {
    std::string command;
    int exit_code = 0;
    int signal = 0;
    bool timed_out = false;
    double seconds = 0;
    std::string errors;  // the end of what it wrote to stderr

    bool succeeded() const { return exit_code == 0 && signal == 0 && !timed_out; }
};

// Runs "/bin/sh -c COMMAND" in a process group of its own, with the environment that the library gives
// to scripts. What it prints goes to stderr. A script that hangs is stopped with its group: by SIGTERM,
// two seconds later by SIGKILL; so is one that runs when a signal comes. Throws Failure if it can't be
// started.
ScriptEnd run_script(const std::string &command, const ScriptContext &context, const HeldSignals &signals);

// One line: "exit code 3 after 0.2 s: what it said last"
std::string describe(const ScriptEnd &end);

}  // namespace engine
