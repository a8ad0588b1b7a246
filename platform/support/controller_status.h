// The status of controllers and their cards, as an operator or a test sets it: lines "contN = BYTE" and "cardN = BYTE"
// of the status file. What is not there is 0.
#pragma once

#include <cstdint>

#include "sanfwctl.h"

namespace platform {

inline constexpr unsigned controllers = 4;

struct StatusBytes {
    std::uint8_t cont[controllers];
    std::uint8_t card[controllers];
};

// Returns 0 or a negative errno.
int read_status(StatusBytes &bytes);

// What libsanfwctl's two calls of these names do, for every platform.
int get_status(int kind, sanfw_getstatus_out *out);
int get_status_ex(int kind, sanfw_getstatus_ex_out *out);

}  // namespace platform
