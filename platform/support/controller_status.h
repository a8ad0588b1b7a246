// The status of controllers and their cards, as an operator or a test sets it: lines "contN = BYTE" and "cardN = BYTE"
// of the status file. What is not there is 0.
#pragma once

#include <cstdint>

namespace platform {

inline constexpr unsigned controllers = 4;

struct StatusBytes {
    std::uint8_t cont[controllers];
    std::uint8_t card[controllers];
};

// Returns 0 or a negative errno.
int read_status(StatusBytes &bytes);

}  // namespace platform
