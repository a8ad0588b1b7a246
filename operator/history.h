// What was there before, as operators look at it: the catalogue of generations in the order of time, one of them found by
// what an operator calls it, and one dropped.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "generations.h"

namespace engine {

struct HistoryFilter {
    std::string group;  // empty: all
    std::optional<std::int64_t> since;
    std::optional<std::int64_t> until;
    std::optional<int> first_version;
    std::optional<int> last_version;
};

// When it was made, where that was recorded; else when it was kept.
std::int64_t date_of(const Generation &generation);

// Who made it, else who kept it.
const GenerationChange &origin_of(const Generation &generation);

// What was said of why, else the verb; empty where nothing was recorded.
std::string reason_of(const GenerationChange &change);

// How the command ended that made the change: "done", "failed"...; empty where that is not known any more.
std::string result_of(const GenerationChange &change);

// Newest first. Throws Failure: the catalogue can't be read.
std::vector<Generation> history(const HistoryFilter &filter);

// By its number in the history, or by the first eight or more digits of its checksum. Throws Failure: there is none, or
// more than one.
Generation find_generation(const std::string &name);

// "2026-11-21", "2026-11-21T20:49:00Z", or how long ago: "90m", "12h", "7d". Throws Failure.
std::int64_t parse_time(const std::string &text, std::int64_t now);

// "7", or "3-9", into the filter. Throws Failure.
void parse_versions(const std::string &text, HistoryFilter &filter);

// What keeps it from being dropped, as a sentence; empty: it may be. The last whole copy of what is in force is never
// dropped, nor the last one of a group. Throws Failure: it can't be told.
std::string kept_because(const Generation &generation);

// Looks again, and drops it: its entry first. Throws Failure.
void drop_generation(const Generation &generation);

}  // namespace engine
