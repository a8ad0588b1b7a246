// A point in time as everything shows it.
#pragma once

#include <cstdint>
#include <string>

namespace engine {

// "2026-11-21T20:49:00Z"; the number itself where the calendar has no such year.
std::string utc(std::int64_t seconds);

}  // namespace engine
