// Block access with the NV image alone, beside the bare platform call.
#include <benchmark/benchmark.h>
#include <kesta/kesta.h>

#include <cstdlib>

#include "sanfwctl.h"

namespace {

constexpr int nv_memory_only = 2;
constexpr int block = KESTA_BLOCK_INNERLOCK_CNT0;
constexpr unsigned int size = 16;

void library_transfer(benchmark::State &state, int flag)
{
    kestal_rw_set_boot_mode(nv_memory_only);
    unsigned char data[size] = {1};
    for (auto _ : state) {
        if (kestal_non_volatile_rw_func(block, flag, data, size, nullptr) != KESTA_OK) {
            state.SkipWithError("the transfer failed");
        }
        benchmark::DoNotOptimize(data);
    }
}

using PlatformCall = int (*)(int, cpfw_nv_region_t *, cpfw_nv_access_t *, int);

void raw_transfer(benchmark::State &state, PlatformCall call)
{
    unsigned char data[size] = {1};
    cpfw_nv_region_t region = 2;
    for (auto _ : state) {
        cpfw_nv_access_t access{data, 0, size};
        if (call(-1, &region, &access, 1) != 0) {
            state.SkipWithError("the transfer failed");
        }
        benchmark::DoNotOptimize(data);
    }
}

BENCHMARK_CAPTURE(library_transfer, read, KESTA_BLOCK_READ);
BENCHMARK_CAPTURE(raw_transfer, read, zKTsanfwctl_read_nv);
BENCHMARK_CAPTURE(library_transfer, write, KESTA_BLOCK_WRITE);
BENCHMARK_CAPTURE(raw_transfer, write, zKTsanfwctl_write_nv);

}  // namespace

BENCHMARK_MAIN();
