// One process of a storm on registers of NV memory, on a controller of a lab: it writes values that nobody else writes,
// reads, and tells each operation with its time. Afterwards the histories of all processes are judged together.
//   register_storm PROCESS SECONDS > FILE      PROCESS is another number for each, 1 to 99
//   register_storm --judge FILE...             exit code 0: each register could have been one that all share
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <random>
#include <string>

#include "linearizable.h"
#include "sanfwctl.h"

namespace {

using test::History;
using test::Operation;

constexpr std::size_t registers = 3;
constexpr std::size_t register_size = 32;
constexpr unsigned free_region = 1;           // nothing else uses it
constexpr unsigned values_each = 10'000'000;  // of a process
constexpr useconds_t pace_us = 4000;          // so that there are not more than can be judged
constexpr unsigned torn = ~0U;                // bytes that nobody wrote

std::int64_t now_ns()
{
    struct timespec now {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

std::array<char, register_size> bytes_of(unsigned value)
{
    std::array<char, register_size> bytes{};
    for (std::size_t at = 0; at < register_size; at += sizeof(value)) {
        memcpy(bytes.data() + at, &value, sizeof(value));
    }
    return bytes;
}

// One operation on a register, as it went.
Operation operate(std::size_t number, Operation::Kind kind, unsigned value)
{
    auto bytes = bytes_of(value);
    cpfw_nv_region_t region = free_region;
    cpfw_nv_access_t access{bytes.data(), 1000 + number * 100, bytes.size()};
    Operation one;
    one.kind = kind;
    one.start = now_ns();
    const int result = kind == Operation::Kind::write ? zKTsanfwctl_write_nv(-1, &region, &access, 1)
                                                      : zKTsanfwctl_read_nv(-1, &region, &access, 1);
    one.end = now_ns();
    one.unknown = result != 0;
    memcpy(&one.value, bytes.data(), sizeof(one.value));
    if (bytes != bytes_of(one.value)) {
        one.value = torn;
    }
    return one;
}

int storm(unsigned process, long seconds)
{
    std::mt19937 random(process);
    unsigned value = process * values_each;
    const std::int64_t end = now_ns() + seconds * 1'000'000'000;
    while (now_ns() < end) {
        const std::size_t number = random() % registers;
        const bool writes = random() % 2 == 0;
        const Operation one =
            operate(number, writes ? Operation::Kind::write : Operation::Kind::read, writes ? ++value : 0);
        printf("%zu %c %u %lld %lld %d\n", number, writes ? 'w' : 'r', one.value, static_cast<long long>(one.start),
               static_cast<long long>(one.end), one.unknown ? 1 : 0);
        (void)usleep(pace_us);
    }
    return 0;
}

// What one process has told.
bool read_history(const char *path, std::array<History, registers> &histories, long &failures)
{
    FILE *file = fopen(path, "re");
    if (!file) {
        return false;
    }
    std::array<std::vector<Operation>, registers> seen;
    std::size_t number = 0;
    char kind = 0;
    unsigned value = 0;
    long long start = 0;
    long long end = 0;
    int unknown = 0;
    while (fscanf(file, "%zu %c %u %lld %lld %d", &number, &kind, &value, &start, &end, &unknown) == 6) {
        const bool writes = kind == 'w';
        failures += unknown;
        if (number < registers && (writes || unknown == 0)) {
            seen[number].push_back(
                {writes ? Operation::Kind::write : Operation::Kind::read, value, start, end, unknown != 0});
        }
    }
    const bool whole = feof(file) != 0;
    (void)fclose(file);
    for (std::size_t i = 0; i < registers; ++i) {
        histories[i].push_back(std::move(seen[i]));
    }
    return whole;
}

int judge(int count, char **paths)
{
    std::array<History, registers> histories;
    long failures = 0;
    for (int i = 0; i < count; ++i) {
        if (!read_history(paths[i], histories, failures)) {
            fprintf(stderr, "register_storm: %s is no history of a process\n", paths[i]);
            return 1;
        }
    }
    std::size_t operations = 0;
    std::size_t refused = 0;
    for (const History &history : histories) {
        for (const auto &process : history) {
            operations += process.size();
        }
        refused += test::is_linearizable(history) ? 0 : 1;
    }
    printf("registers %zu, operations %zu, failures told %ld, histories that no single register has %zu\n", registers,
           operations, failures, refused);
    return refused == 0 && operations > 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc > 2 && strcmp(argv[1], "--judge") == 0) {
        return judge(argc - 2, argv + 2);
    }
    const unsigned process = argc == 3 ? static_cast<unsigned>(strtoul(argv[1], nullptr, 10)) : 0;
    if (process < 1 || process > 99) {
        fputs("usage: register_storm PROCESS SECONDS | register_storm --judge FILE...\n", stderr);
        return 2;
    }
    return storm(process, strtol(argv[2], nullptr, 10));
}
