// The library's trace lines, as a program sees them that takes MC_OutTrace over from the platform's log: it
// shows lines on request, keeps those that say why something failed, and hands every line on to the
// platform's own log. What a line says decides nothing: causes do (kesta/cause.h).
#pragma once

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

}  // namespace engine
