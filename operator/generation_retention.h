// Which generations go first.
#pragma once

#include <string>
#include <vector>

#include "archive_limits.h"
#include "generation.h"

namespace engine {

// What may be dropped, oldest first: not the accepted version, not the running one, not the last one of a group, and
// none of these.
std::vector<Generation> droppable(std::vector<Generation> all, const VersionsInForce &in_force,
                                  const std::vector<Generation> &spared);

bool beyond(const std::vector<Generation> &all, const GenerationLimits &limits);

}  // namespace engine
