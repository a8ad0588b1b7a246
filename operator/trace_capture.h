// The library's trace lines, as a program sees them that takes MC_OutTrace over from the platform's log: it
// shows lines on request, keeps those that say why something failed, and hands every line on to the
// platform's own log.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace engine {

// One line, from the program's MC_OutTrace.
void take_trace(const char *file, int line, int level, const char *text);

// Lines up to the level go to stderr.
void show_traces(int level);
bool traces_are_shown();

// From here on nothing goes to the platform's log: a dry run writes nothing at all.
void withhold_traces();

// Each line that is traced from here on is shown to this function first; it must not trace.
void watch_traces(std::function<void(const std::string &line)> watcher);

// The lines of levels 1 and 2 so far, oldest first.
std::vector<std::string> captured_errors();

// How many lines have been kept so far: what was traced before can be left out of account.
std::uint64_t traced_lines();

// Whether a line with this text was traced, but as progress, behind so many kept lines.
bool was_traced(const std::string &text, std::uint64_t behind = 0);

}  // namespace engine
