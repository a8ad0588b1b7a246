#include "storm.h"

#include <time.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "nv_region.h"

namespace test {
namespace {

constexpr unsigned processes = 4;
constexpr std::size_t register_size = 32;

std::int64_t now_ns()
{
    struct timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

std::string bytes_of(unsigned value)
{
    std::string bytes(register_size, static_cast<char>('a' + value % 26));
    std::memcpy(bytes.data(), &value, sizeof(value));
    return value == 0 ? std::string(register_size, '\0') : bytes;
}

struct Shared {
    const etcd::ClusterSettings &settings;
    const std::atomic<bool> &ended;
    StormResult &result;
    std::mutex mutex;
    std::atomic<unsigned> next_value{1};
    std::atomic<std::int64_t> last_done_ns{now_ns()};
    std::atomic<std::int64_t> gap_ns{0};
};

void run(Shared &shared, unsigned process)
{
    etcd::Client client(shared.settings);
    etcd::NvRegion region(client, "/kesta/nv/2", false);
    std::mt19937 random(process);
    std::array<std::vector<Operation>, storm_registers> seen;
    int done = 0;
    int failed = 0;
    std::int64_t longest = 0;
    while (!shared.ended) {
        const std::size_t number = random() % storm_registers;
        const std::uint64_t offset = 1000 + number * 100;
        Operation one;
        one.kind = random() % 2 == 0 ? Operation::Kind::read : Operation::Kind::write;
        std::string bytes(register_size, '\0');
        if (one.kind == Operation::Kind::write) {
            one.value = shared.next_value++;
            bytes = bytes_of(one.value);
        }
        one.start = now_ns();
        const int result = one.kind == Operation::Kind::write ? region.write(offset, bytes.data(), bytes.size())
                                                              : region.read(offset, bytes.data(), bytes.size());
        one.end = now_ns();
        one.unknown = result != 0;
        longest = std::max(longest, one.end - one.start);
        if (result == 0) {
            ++done;
            std::int64_t gap = one.end - shared.last_done_ns.exchange(one.end);
            std::int64_t known = shared.gap_ns;
            while (gap > known && !shared.gap_ns.compare_exchange_weak(known, gap)) {
            }
        } else {
            ++failed;
        }
        if (one.kind == Operation::Kind::read && result == 0) {
            std::memcpy(&one.value, bytes.data(), sizeof(one.value));
            if (bytes != bytes_of(one.value)) {
                one.value = ~0U;  // torn: nobody wrote it
            }
        }
        if (result == 0 || one.kind == Operation::Kind::write) {
            seen[number].push_back(one);
        }
    }
    const std::lock_guard lock(shared.mutex);
    for (std::size_t i = 0; i < storm_registers; ++i) {
        shared.result.registers[i].push_back(std::move(seen[i]));
    }
    shared.result.done += done;
    shared.result.failed += failed;
    shared.result.longest_ms = std::max(shared.result.longest_ms, longest / 1'000'000);
}

}  // namespace

StormResult storm(const etcd::ClusterSettings &settings, const std::atomic<bool> &ended)
{
    etcd::Client client(settings);
    etcd::NvRegion region(client, "/kesta/nv/2", false);
    const std::string zeros(storm_registers * 100, '\0');
    while (region.write(1000, zeros.data(), zeros.size()) != 0 && !ended) {
    }
    StormResult result;
    Shared shared{settings, ended, result, {}};
    std::vector<std::thread> threads;
    for (unsigned process = 0; process < processes; ++process) {
        threads.emplace_back([&shared, process] { run(shared, process); });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    result.gap_ms = shared.gap_ns / 1'000'000;
    return result;
}

}  // namespace test
