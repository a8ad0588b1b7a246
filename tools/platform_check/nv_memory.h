// Transfers of NV memory as the library makes them.
#pragma once

#include <cstdint>
#include <string>

#include "sanfwctl.h"

namespace platform_check {

inline constexpr cpfw_nv_region_t image_region = 2;
inline constexpr cpfw_nv_region_t other_region = 0;
inline constexpr std::uint64_t region_size = 32768;
inline constexpr const char *refused_bytes = "(refused)";

int transfer(bool writes, cpfw_nv_region_t region, std::uint64_t offset, void *bytes, std::uint64_t size);
int write_nv(std::uint64_t offset, std::string bytes, cpfw_nv_region_t region = image_region);
std::string read_nv(std::uint64_t offset, std::size_t size, cpfw_nv_region_t region = image_region);

}  // namespace platform_check
