// Four processes of controllers that write and read registers of NV memory, and what each of them saw, with its time.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

#include "client.h"
#include "linearizable.h"

namespace test {

inline constexpr std::size_t storm_registers = 3;

struct StormResult {
    std::array<History, storm_registers> registers;
    int done = 0;
    int failed = 0;
    std::int64_t longest_ms = 0;  // of one transfer
    std::int64_t gap_ms = 0;      // without any transfer of anybody that succeeded
};

// Goes on until ended is set.
StormResult storm(const etcd::ClusterSettings &settings, const std::atomic<bool> &ended);

}  // namespace test
