// Programs that the lab runs.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace lab {

enum class Shown { all, output, nothing };  // of what a program writes: all, stdout alone, nothing

inline constexpr int program_is_missing = 127;

// Runs a program and waits for it. Returns its exit code, 128 and more for a signal, or program_is_missing.
int run_program(const std::vector<std::string> &command, Shown shown);

// What a program prints on stdout; nothing where it fails. Its complaints are dropped.
std::string output_of(const std::vector<std::string> &command);

// Does it in a process of its own, for what can't be undone: entering a namespace. Throws Error with what it threw.
void in_own_process(const std::function<void()> &act);

// Starts a program that stays when this one ends, in a session of its own: prepare runs in it first, its output goes to
// the end of the log. Returns its process ID. Throws Error where it can't be started.
int start_program(const std::vector<std::string> &command,
                  const std::vector<std::pair<std::string, std::string>> &environment, const std::filesystem::path &log,
                  const std::function<void()> &prepare);

}  // namespace lab
