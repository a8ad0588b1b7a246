// How two texts differ, line by line, as a unified difference.
#pragma once

#include <string>
#include <string_view>

namespace engine {

// What no text is longer than that is held against another one line by line.
inline constexpr std::size_t longest_compared_text = std::size_t{64} << 10;

// Not too long, no NUL byte, and few characters that are no text.
bool is_compared_text(std::string_view bytes);

// Hunks with three lines around each; empty: they are the same. Texts that have little in common are shown as one hunk.
std::string unified_difference(std::string_view from, std::string_view to);

}  // namespace engine
