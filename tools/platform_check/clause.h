// The clauses of the contract between libkesta and the platform's four libraries, and what their
// checks are written with. A check runs in a process of its own, so that a platform which crashes
// or hangs breaks one clause and not the whole run.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace platform_check {

// What is wrong, or nothing.
using Outcome = std::string;

struct Clause {
    const char *library;
    const char *what;
    std::function<Outcome()> check;
};

using Clauses = std::vector<Clause>;

inline constexpr int rounds = 300;
inline constexpr int no_handle = -1;

// The clauses of each library, and those of all of them together.
Clauses nv_clauses();
Clauses backup_area_clauses();
Clauses cluster_clauses();
Clauses trace_clauses();
Clauses process_clauses();

// Where the platform's trace log is to be looked for; empty: what the platform has open, and
// stderr.
void set_trace_log(const std::string &path);

// Remembers which descriptors were open when the program was started: they are not the platform's.
void remember_inherited_descriptors();

// Runs a check in a process of its own. A signal that ended it, or that it hung, is what is wrong
// then.
Outcome in_own_process(const std::function<Outcome()> &check);

// Runs a body in a process of its own. Whether it returned true.
bool in_process(const std::function<bool()> &body);

// Runs a body in many threads at once; the first complaint.
Outcome in_threads(int count, const std::function<Outcome(int)> &body);

// Runs writes in a process of its own, and looks again and again meanwhile. What look complained
// of.
Outcome while_another_writes(const std::function<void()> &writes, const std::function<Outcome()> &look);

}  // namespace platform_check
