// The processes of a lab, known by what stood in their environment when they were started.
#pragma once

#include <string>
#include <vector>

namespace lab {

// Those that were started with all of the variables, "NAME=value"; without this one.
std::vector<int> processes_with(const std::vector<std::string> &variables);

// Asks a process to end, kills it where it doesn't, and waits until it is gone.
void end_process(int pid);

// Kills them, and waits until they are gone.
void kill_processes(const std::vector<int> &processes);

// Stops it, and waits until it has: a process of many threads takes its time where the machine is busy.
void stop_process(int pid);

// Whether the process is stopped by a signal.
bool is_stopped(int pid);

}  // namespace lab
