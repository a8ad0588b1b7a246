#include "generation.h"

namespace engine {

std::string short_sum(const std::string &sha256)
{
    constexpr std::size_t shown_digits = 12;
    return sha256.substr(0, shown_digits);
}

std::string name_of(const Generation &generation)
{
    std::string what = generation.group;
    if (generation.version > 0) {
        what += (what.empty() ? "version " : ", version ") + std::to_string(generation.version);
    }
    return "generation " + short_sum(generation.sha256) + (what.empty() ? "" : " (" + what + ")");
}

}  // namespace engine
