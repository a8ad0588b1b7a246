// The command lock and the reading of a version, beside the transfers and inner locks that they need.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <kesta/kesta.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <functional>

#include "sanfwctl.h"
#include "sbacc.h"

namespace {

constexpr int own_slot = 0;
constexpr const char *lock_file = "/var/run/kesta_sys/tmp/bench.lock";
constexpr const char *version_file = "kesta_verback";

int own_controller()
{
    static const int number = kestal_get_cnt_num_from_cpinfo(KESTA_CPINFO_OWN_NUMBER);
    return number;
}

void measure(benchmark::State &state, const std::function<bool()> &step)
{
    const int own = own_controller();
    kestal_rw_set_boot_mode(KESTA_RWMODE_BOTH);
    if (own < 0 || kestal_set_version(KESTA_VER_AREA_BACKUP, own, 1) != KESTA_OK) {
        state.SkipWithError("run this on a controller of a lab");
        return;
    }
    for (auto _ : state) {
        if (!step()) {
            state.SkipWithError("a call failed");
            break;
        }
    }
}

bool transfer(bool writes, std::uint64_t offset, std::uint64_t length)
{
    static std::array<unsigned char, 128> bytes{};
    cpfw_nv_region_t region = KESTA_NV_IMAGE_REGION;
    cpfw_nv_access_t access{bytes.data(), offset, length};
    return (writes ? zKTsanfwctl_write_nv(-1, &region, &access, 1) : zKTsanfwctl_read_nv(-1, &region, &access, 1)) == 0;
}

// One section of the inner lock around an access.
template <typename Access>
bool in_section(Access access)
{
    const int own = own_controller();
    return kestal_cntl_innerlock(own) == KESTA_OK && access() &&
           kestal_reset_mycnt_innerlock_main(own, own_slot) == KESTA_OK;
}

struct Transfer {
    bool writes;
    std::uint64_t offset;
    std::uint64_t length;
};

// Taking: look, claim, look again. Releasing: look, clear the group name, clear the slot.
const std::array<Transfer, 6> lock_transfers{
    {{false, 200, 96}, {true, 200, 24}, {false, 200, 96}, {false, 200, 24}, {true, 56, 16}, {true, 200, 24}}};

void library_command_lock(benchmark::State &state)
{
    measure(state, [] {
        char identifier[KESTA_LOCK_IDENTIFIER_SIZE];
        const int own = own_controller();
        return kestal_global_command_lock_func(own, KESTA_LOCK_TYPE1, identifier, nullptr, 0, nullptr) == KESTA_OK &&
               kestal_global_command_unlock_func(own, identifier, 0) == KESTA_OK;
    });
}
BENCHMARK(library_command_lock);

void raw_command_lock_sections(benchmark::State &state)
{
    measure(state, [] {
        for (const Transfer &t : lock_transfers) {
            if (!in_section([&] { return transfer(t.writes, t.offset, t.length); })) {
                return false;
            }
        }
        return true;
    });
}
BENCHMARK(raw_command_lock_sections);

void raw_command_lock_transfers(benchmark::State &state)
{
    measure(state, [] {
        for (const Transfer &t : lock_transfers) {
            if (!transfer(t.writes, t.offset, t.length)) {
                return false;
            }
        }
        return true;
    });
}
BENCHMARK(raw_command_lock_transfers);

void raw_lockf_pair(benchmark::State &state)
{
    const int fd = open(lock_file, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    measure(state, [fd] { return lockf(fd, F_LOCK, 0) == 0 && lockf(fd, F_ULOCK, 0) == 0; });
    (void)close(fd);  // nothing was written
}
BENCHMARK(raw_lockf_pair);

void library_version_by_mode(benchmark::State &state)
{
    measure(state,
            [] { return kestal_read_version(KESTA_VER_AREA_BACKUP, own_controller(), KESTA_VERSION_BY_MODE) == 1; });
}
BENCHMARK(library_version_by_mode);

// The mirror file, as the library has to read it: opened, measured, read, closed.
bool read_mirror()
{
    int handle = -1;
    int close_flag = 1;
    int version = 0;
    if (sbacc_open(version_file, "r", &handle, &close_flag) != 0) {
        return false;
    }
    const bool read = sbacc_read_size(handle) == sizeof(version) &&
                      sbacc_read(&version, sizeof(version), 0, handle) == sizeof(version);
    return sbacc_close(handle) == 0 && read;
}

void raw_version_by_mode(benchmark::State &state)
{
    measure(state, [] { return in_section(read_mirror); });
}
BENCHMARK(raw_version_by_mode);

void library_version_memory_first(benchmark::State &state)
{
    measure(state, [] {
        return kestal_read_version(KESTA_VER_AREA_BACKUP, own_controller(), KESTA_VERSION_MEMORY_FIRST) == 1;
    });
}
BENCHMARK(library_version_memory_first);

void raw_version_memory_first(benchmark::State &state)
{
    measure(state, [] { return in_section([] { return transfer(false, 300, 4); }); });
}
BENCHMARK(raw_version_memory_first);

}  // namespace

BENCHMARK_MAIN();
