// The sides of a comparison, as an operator names them.
#pragma once

#include <string>

#include "file_difference.h"

namespace engine {

inline constexpr const char *live_side = "live";

// "live", "backup" or "accept" for what the slot in force holds, or a generation as find_generation takes it. Throws
// Failure, with exit code 4 where it can't be read.
ComparedSide side_named(const std::string &name);

}  // namespace engine
