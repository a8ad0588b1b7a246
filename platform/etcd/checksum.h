// CRC-64 (the polynomial of ECMA-182, reflected): finds what a disk, a memory or a member did to the bytes. It is no
// protection against whoever means to change them.
#pragma once

#include <cstdint>
#include <string_view>

namespace etcd {

// Of bytes, going on from the checksum of those before them (0: none).
std::uint64_t checksum(std::string_view bytes, std::uint64_t before = 0);

}  // namespace etcd
