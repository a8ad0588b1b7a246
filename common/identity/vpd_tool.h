// The VPD tool's answer as it was printed.
#pragma once

#include <array>

namespace kesta {

// A line of the tool, at most 63 characters.
using VpdLine = std::array<char, 64>;

// As kestal_get_vpn_info, with its traces, but the buffers have 64 bytes and get whole lines: whether a
// value has the length that it should have can be seen.
int read_vpd_tool(char *wwn, char *serialno, char *guid);

}  // namespace kesta
