#include "generation_retention.h"

#include <algorithm>
#include <map>
#include <numeric>
#include <utility>

namespace engine {

std::vector<Generation> droppable(std::vector<Generation> all, const VersionsInForce &in_force,
                                  const std::vector<Generation> &spared)
{
    if (!in_force.known()) {
        return {};
    }
    std::map<std::string, std::uint64_t> last_of_group;
    for (const Generation &generation : all) {
        std::uint64_t &last = last_of_group[generation.group];
        last = std::max(last, generation.order);
    }
    std::erase_if(all, [&](const Generation &generation) {
        const bool of_version = generation.version > 0 &&
                                (generation.version == *in_force.accepted || generation.version == *in_force.running);
        return of_version || generation.order == last_of_group[generation.group] ||
               std::any_of(spared.begin(), spared.end(),
                           [&](const Generation &one) { return one.sha256 == generation.sha256; });
    });
    std::sort(all.begin(), all.end(), [](const Generation &one, const Generation &other) {
        return std::pair(one.order, one.kept.time) < std::pair(other.order, other.kept.time);
    });
    return all;
}

bool beyond(const std::vector<Generation> &all, const GenerationLimits &limits)
{
    const std::uint64_t bytes =
        std::accumulate(all.begin(), all.end(), std::uint64_t{0},
                        [](std::uint64_t sum, const Generation &generation) { return sum + generation.bytes; });
    return all.size() > limits.count || bytes > limits.bytes;
}

}  // namespace engine
