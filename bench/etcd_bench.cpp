// The etcd platform beside what its members cost: block access, locks and the start of a program beside bare round trips on
// a socket, and archives beside the same bytes by a bare client. Run it with the platform in the search path, and its
// settings in the environment: scripts/etcd_bench.sh does. Its results are JSON, for scripts/bench_report.py.
//   etcd_bench                       all that is compared
//   etcd_bench --read | --bare-read  a program that reads one block, and ends
//   etcd_bench --archive             one of 100 MB
#include <kesta/kesta.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "bare_socket.h"
#include "client.h"
#include "sbacc.h"

namespace {

constexpr int repetitions = 2000;
constexpr std::size_t archive_size = 100000000;
constexpr std::size_t chunk_size = 65536;
constexpr const char *range_path = "/etcdserverpb.KV/Range";
constexpr const char *txn_path = "/etcdserverpb.KV/Txn";

double now_ns()
{
    struct timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

double load()
{
    double now = 0;
    (void)getloadavg(&now, 1);
    return now;
}

void print_times(const char *key, const std::vector<double> &times)
{
    printf(", \"%s\": [", key);
    for (std::size_t i = 0; i < times.size(); ++i) {
        printf("%s%.0f", i == 0 ? "" : ", ", times[i]);
    }
    printf("]");
}

// Two bodies that take turns; their times in nanoseconds.
void compare(const char *what, const char *against, int times, const char *aim, const std::function<void()> &measured,
             const std::function<void()> &raw)
{
    static bool first = true;
    std::vector<double> ours;
    std::vector<double> theirs;
    const double busy = load();
    for (int i = 0; i < times; ++i) {
        for (auto [body, taken] : {std::pair{&measured, &ours}, std::pair{&raw, &theirs}}) {
            const double begun = now_ns();
            (*body)();
            taken->push_back(now_ns() - begun);
        }
    }
    printf("%s  {\"what\": \"%s\", \"against\": \"%s\", \"aim\": %s, \"load\": %.1f", first ? "" : ",\n", what, against,
           aim, busy);
    print_times("times", ours);
    print_times("raw", theirs);
    printf("}");
    (void)fflush(stdout);
    first = false;
}

etcd::Step put(const std::string &key, const std::string &value)
{
    return {std::nullopt, etcd::PutRequest{key, value, 0}, std::nullopt};
}

void access_block(int direction)
{
    static char name[KESTA_AREA_NAME_SIZE] = KESTA_SLOT0;
    require(kestal_non_volatile_rw_memory(KESTA_BLOCK_OLD_BACKUP_NAME, direction, name, sizeof(name)) == KESTA_OK,
            "block access fails");
}

// The bare calls that the library's are held against.
class BareCalls {
public:
    explicit BareCalls(const etcd::Endpoint &endpoint) : socket_(endpoint)
    {
        etcd::RangeRequest range;
        range.key = "/kesta/nv/2";
        range_ = etcd::encode(range);
        etcd::TxnRequest txn;
        txn.conditions = {{"/bare/none", etcd::Condition::Of::changed_at, 0}};
        txn.then = {put("/bare/nv", std::string(664, 'x'))};
        txn_ = etcd::encode(txn);
    }
    void read() { socket_.call(range_path, range_); }
    void write() { socket_.call(txn_path, txn_); }
    void turns(int count)
    {
        for (int i = 0; i < count; ++i) {
            read();
            write();
        }
    }

private:
    BareSocket socket_;
    std::string range_;
    std::string txn_;
};

void compare_blocks_and_locks(BareCalls &bare)
{
    access_block(KESTA_BLOCK_WRITE);
    compare(
        "block read, 32 bytes", "a bare read of the same key", repetitions, "1.1",
        [] { access_block(KESTA_BLOCK_READ); }, [&] { bare.read(); });
    compare(
        "block write, 32 bytes", "a bare conditional write of 664 bytes", repetitions, "1.1",
        [] { access_block(KESTA_BLOCK_WRITE); }, [&] { bare.write(); });
    compare(
        "inner lock taken and released", "its four bare calls", repetitions / 4, "null",
        [] {
            require(kestal_cntl_innerlock(0) == KESTA_OK && kestal_reset_mycnt_innerlock_main(0, 1) == KESTA_OK,
                    "the inner lock fails");
        },
        [&] { bare.turns(2); });
    compare(
        "a command lock taken and released", "the thirty bare calls of its transfers and inner locks", repetitions / 20,
        "null",
        [] {
            char identifier[KESTA_LOCK_IDENTIFIER_SIZE];
            require(kestal_global_command_lock_func(0, KESTA_LOCK_TYPE1, identifier, nullptr, 0, nullptr) == KESTA_OK &&
                        kestal_global_command_unlock_func(0, identifier, 0) == KESTA_OK,
                    "the command lock fails");
        },
        [&] { bare.turns(15); });
}

// This program once more, to its end.
void run_self(const char *option)
{
    char self[] = "etcd_bench";
    std::string given = option;
    char *arguments[] = {self, given.data(), nullptr};
    pid_t child = -1;
    int status = -1;
    require(posix_spawn(&child, "/proc/self/exe", nullptr, nullptr, arguments, environ) == 0 &&
                waitpid(child, &status, 0) == child && status == 0,
            "a program fails");
}

void write_archive(const std::string &archive)
{
    int handle = -1;
    int flag = 0;
    require(sbacc_open("bench", "w", &handle, &flag) == 0 &&
                sbacc_write(archive.data(), archive_size, 0, handle) == static_cast<int>(archive_size) &&
                sbacc_close(handle) == 0,
            "an archive can't be written");
}

void read_archive(const std::string &archive)
{
    int handle = -1;
    int flag = 0;
    std::string back(archive_size, '\0');
    require(sbacc_open("bench", "r", &handle, &flag) == 0 &&
                sbacc_read(back.data(), archive_size, 0, handle) == static_cast<int>(archive_size) &&
                sbacc_close(handle) == 0 && back == archive,
            "an archive can't be read");
}

std::string made_archive()
{
    std::string archive(archive_size, '\0');
    for (std::size_t i = 0; i < archive.size(); ++i) {
        archive[i] = static_cast<char>(i * 2654435761U >> 13U);
    }
    return archive;
}

void compare_archives(etcd::Client &client)
{
    const std::string archive = made_archive();
    const auto bare_chunks = [&](bool writes) {
        for (std::size_t at = 0; at < archive.size(); at += chunk_size) {
            const std::string key = "/bare/c/" + std::to_string(at);
            etcd::TxnResponse answer;
            etcd::RangeResponse found;
            etcd::TxnRequest request;
            bool maybe = false;
            request.then = {put(key, archive.substr(at, chunk_size))};
            etcd::RangeRequest wanted;
            wanted.key = key;
            require((writes ? client.txn(request, answer, client.allow_chunk(), maybe)
                            : client.range(wanted, found, client.allow_chunk())) == 0,
                    "a bare chunk fails");
        }
    };
    compare(
        "100 MB into the backup area", "the same bytes by a bare client", 3, "null", [&] { write_archive(archive); },
        [&] { bare_chunks(true); });
    compare(
        "100 MB out of the backup area", "the same bytes by a bare client", 3, "null", [&] { read_archive(archive); },
        [&] { bare_chunks(false); });
}

}  // namespace

int main(int argc, char **argv)
{
    const std::string option = argc > 1 ? argv[1] : "";
    const char *members = getenv("KESTA_PLATFORM_NV_ENDPOINTS");
    etcd::ClusterSettings settings;
    std::string why;
    require(members && etcd::parse_endpoints(members, settings.endpoints, why), "KESTA_PLATFORM_NV_ENDPOINTS is wrong");
    if (option == "--read") {
        access_block(KESTA_BLOCK_READ);
        return 0;
    }
    BareCalls bare(settings.endpoints[0]);
    if (option == "--bare-read") {
        bare.read();
        return 0;
    }
    if (option == "--archive") {
        write_archive(made_archive());
        return 0;
    }
    kestal_get_cnt_num_from_cpinfo(KESTA_CPINFO_OWN_NUMBER);
    printf("{\"etcd\": [\n");
    compare_blocks_and_locks(bare);
    compare(
        "a program's start to its first block, and its end", "the same program with a bare connection and read", 100,
        "null", [] { run_self("--read"); }, [] { run_self("--bare-read"); });
    etcd::Client client(settings);
    compare_archives(client);
    printf("\n]}\n");
    return 0;
}
