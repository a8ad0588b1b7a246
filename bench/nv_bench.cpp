// Repairing the mirrored items, beside the bare transfers; dumping bytes, beside the tools that everybody has.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <kesta/kesta.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <string>
#include <vector>

#include "sanfwctl.h"
#include "sbacc.h"

extern char **environ;

namespace {

// ------------------------------------------------------------------------------------ the repair

struct Item {
    int block;
    const char *mirror;
    std::uint64_t offset;
    std::uint64_t size;
};
constexpr std::uint64_t nowhere = 0;
constexpr std::array<Item, 12> items{{{31, "kesta_sysback", 72, 32},
                                      {32, "kesta_sysacpt", 104, 32},
                                      {51, "kesta_verid", 296, 4},
                                      {52, "kesta_verback", 300, 4},
                                      {61, "kesta_ver0", 312, 4},
                                      {62, "kesta_ver1", 320, 4},
                                      {63, "kesta_ver2", 328, 4},
                                      {64, "kesta_ver3", 336, 4},
                                      {55, "kesta_reboot", nowhere, 4},
                                      {201, "kesta_wwn", 344, 16},
                                      {202, "kesta_serialno", 364, 16},
                                      {203, "kesta_guid", 384, 20}}};

void fill_area()
{
    for (const Item &item : items) {
        std::vector<char> bytes(item.size, 1);
        if (item.block == KESTA_BLOCK_BACKUP_NAME || item.block == KESTA_BLOCK_ACCEPT_NAME) {
            memset(bytes.data(), 0, bytes.size());
            memcpy(bytes.data(), KESTA_SLOT0, sizeof(KESTA_SLOT0));
        }
        if (kestal_non_volatile_rw_sysback(item.block, KESTA_FILE_WRITE, bytes.data(),
                                           static_cast<unsigned>(bytes.size())) != KESTA_OK) {
            abort();
        }
    }
}

void library_repair(benchmark::State &state)
{
    fill_area();
    for (auto _ : state) {
        if (kestal_repair_allitem(KESTA_REPAIR_FROM_SYSBACK, nullptr, 0) != KESTA_OK) {
            state.SkipWithError("the repair failed");
            break;
        }
    }
}
BENCHMARK(library_repair)->UseRealTime();

bool transfer_bare(const Item &item)
{
    int handle = -1;
    int close_flag = 0;
    if (sbacc_open(item.mirror, "r", &handle, &close_flag) < 0) {
        return false;
    }
    const int size = sbacc_read_size(handle);
    std::array<char, 32> bytes;
    const int read = size > 0 && size <= static_cast<int>(bytes.size())
                         ? sbacc_read(bytes.data(), static_cast<unsigned>(size), 0, handle)
                         : -1;
    if (sbacc_close(handle) != 0 || read != size) {
        return false;
    }
    cpfw_nv_region_t region = KESTA_NV_IMAGE_REGION;
    cpfw_nv_access_t access{bytes.data(), item.offset, item.size};
    return item.offset == nowhere || zKTsanfwctl_write_nv(-1, &region, &access, 1) == 0;
}

void raw_repair(benchmark::State &state)
{
    fill_area();
    for (auto _ : state) {
        for (const Item &item : items) {
            if (!transfer_bare(item)) {
                state.SkipWithError("a transfer failed");
                return;
            }
        }
    }
}
BENCHMARK(raw_repair)->UseRealTime();

// Every call of the system backup area takes 50 ms: the rules are in a file that the main program made.
void slow_sequential_repair(benchmark::State &state) { library_repair(state); }
BENCHMARK(slow_sequential_repair)->UseRealTime()->Iterations(1);

void slow_threaded_repair(benchmark::State &state)
{
    fill_area();
    std::array<char, 4> backup_version{};
    std::array<char, 4> numbering_version{};
    for (auto _ : state) {
        if (kestal_repair_memory_from_sysback(nullptr, 0, backup_version.data(), numbering_version.data()) !=
            KESTA_OK) {
            state.SkipWithError("the repair failed");
        }
    }
    (void)kestal_repair_memory_sysback(nullptr, 0);  // the next ones are sequential again
}
BENCHMARK(slow_threaded_repair)->UseRealTime()->Iterations(1);

// -------------------------------------------------------------------------------------- the dump

constexpr std::size_t dumped = std::size_t{1} << 20;
constexpr const char *dumped_file = "/tmp/kesta-bench-dump";

std::vector<char> dumped_bytes()
{
    std::vector<char> bytes(dumped);
    unsigned state = 1;
    for (char &byte : bytes) {
        state = state * 1103515245U + 12345U;
        byte = static_cast<char>(state >> 16);
    }
    return bytes;
}

void library_dump(benchmark::State &state)
{
    std::vector<char> bytes = dumped_bytes();
    FILE *out = fopen("/dev/null", "we");
    for (auto _ : state) {
        kestal_non_volatile_dump(out, bytes.data(), static_cast<int>(bytes.size()));
    }
    (void)fclose(out);  // nothing is kept there
}
BENCHMARK(library_dump)->UseRealTime();

// A tool as it is run by hand, its start included.
void tool_dump(benchmark::State &state, std::vector<std::string> words)
{
    const std::vector<char> bytes = dumped_bytes();
    std::ofstream(dumped_file, std::ios::binary).write(bytes.data(), static_cast<long>(bytes.size()));
    words.emplace_back(dumped_file);
    std::vector<char *> arguments;
    for (std::string &word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    for (auto _ : state) {
        pid_t child;
        int status = -1;
        if (posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ) != 0 ||
            waitpid(child, &status, 0) != child || status != 0) {
            state.SkipWithError("the tool failed");
            break;
        }
    }
    posix_spawn_file_actions_destroy(&actions);
    (void)unlink(dumped_file);
}
BENCHMARK_CAPTURE(tool_dump, xxd, {"xxd"})->UseRealTime();
BENCHMARK_CAPTURE(tool_dump, hexdump, {"hexdump", "-C"})->UseRealTime();

}  // namespace

int main(int argc, char **argv)
{
    std::string rules = "/tmp/kesta-bench-faults-XXXXXX";
    if (getenv("KESTA_BENCH_SLOW_AREA")) {
        const int fd = mkstemp(rules.data());
        const std::string text =
            "sb_open 1 on delay 50\nsb_size 1 on delay 50\n"
            "sb_read 1 on delay 50\nsb_write 1 on delay 50\n"
            "sb_close 1 on delay 50\n";
        if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) || close(fd) != 0) {
            perror(rules.c_str());
            return 1;
        }
        setenv("KESTA_PLATFORM_FAULT_FILE", rules.c_str(), 1);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    (void)unlink(rules.c_str());
    return 0;
}
