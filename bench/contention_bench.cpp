// How long processes wait for one another: the inner lock, lockf and a database on the same file system, each taken and
// given back by so many processes for so many seconds. Prints one JSON text: the waits by percentile, and the turns.
#include <fcntl.h>
#include <kesta/kesta.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char *file_path = "/var/run/kesta_sys/tmp/contention.lock";
constexpr const char *database_path = "/var/run/kesta_sys/tmp/contention.db";
constexpr int clear_own_slot = 0;
constexpr std::size_t most_waits = 1 << 16;  // of one process

struct Turns {
    std::atomic<int> ready;
    struct Process {
        std::size_t count;
        double waits[most_waits];  // milliseconds
    } processes[1];
};

// One turn; false: it failed.
using Turn = std::function<bool()>;

Turn inner_lock()
{
    const int own = kestal_get_cnt_num_from_cpinfo(KESTA_CPINFO_OWN_NUMBER);
    return [own] {
        return kestal_cntl_innerlock(own) == KESTA_OK &&
               kestal_reset_mycnt_innerlock_main(own, clear_own_slot) == KESTA_OK;
    };
}

Turn file_lock()
{
    const int file = open(file_path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    return [file] {
        return lockf(file, F_LOCK, 0) == 0 && lockf(file, F_ULOCK, 0) == 0;
    };
}

Turn database()
{
    sqlite3 *opened = nullptr;
    sqlite3_stmt *update = nullptr;
    const bool ready =
        sqlite3_open(database_path, &opened) == SQLITE_OK && sqlite3_busy_timeout(opened, 60000) == SQLITE_OK &&
        sqlite3_exec(opened, "PRAGMA journal_mode=WAL; PRAGMA synchronous=OFF;", nullptr, nullptr, nullptr) ==
            SQLITE_OK &&
        sqlite3_exec(opened,
                     "CREATE TABLE IF NOT EXISTS slot (id INTEGER PRIMARY KEY, token INT);"
                     "INSERT OR REPLACE INTO slot VALUES (0, 0)",
                     nullptr, nullptr, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(opened, "UPDATE slot SET token = token + 1 WHERE id = 0", -1, &update, nullptr) == SQLITE_OK;
    return [ready, update] {
        return ready && sqlite3_step(update) == SQLITE_DONE && sqlite3_reset(update) == SQLITE_OK;
    };
}

int work(const Turn &turn, Turns::Process &process, std::chrono::seconds seconds)
{
    for (const auto end = Clock::now() + seconds; Clock::now() < end && process.count < most_waits;) {
        const auto begin = Clock::now();
        if (!turn()) {
            return 1;
        }
        process.waits[process.count++] = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
        (void)usleep(1000);  // it has other things to do, too
    }
    return 0;
}

int usage()
{
    (void)fprintf(stderr, "usage: contention_bench inner|lockf|sqlite PROCESSES SECONDS\n");
    return 2;
}

}  // namespace

int main(int argc, char **argv)
{
    const int count = argc == 4 ? atoi(argv[2]) : 0;
    const std::chrono::seconds seconds(argc == 4 ? atoi(argv[3]) : 0);
    const std::string kind = argc == 4 ? argv[1] : "";
    Turn (*const make)() = kind == "inner"    ? inner_lock
                           : kind == "lockf"  ? file_lock
                           : kind == "sqlite" ? database
                                              : nullptr;
    if (!make || count < 1 || seconds.count() < 1) {
        return usage();
    }
    const std::size_t bytes = sizeof(Turns) + sizeof(Turns::Process) * static_cast<std::size_t>(count);
    void *const shared = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) {
        return 1;
    }
    auto *const turns = static_cast<Turns *>(shared);
    // What the first one of all makes, others don't make at the same time: a database changes its journal alone.
    if (fork() == 0) {
        (void)make();
        _exit(0);
    }
    (void)wait(nullptr);
    for (int i = 0; i < count; ++i) {
        if (fork() == 0) {
            const Turn turn = make();
            ++turns->ready;
            while (turns->ready < count) {
                (void)usleep(1000);
            }
            _exit(work(turn, turns->processes[i], seconds));
        }
    }
    bool failed = false;
    for (int i = 0, status = 0; i < count; ++i) {
        failed = wait(&status) < 0 || status != 0 || failed;
    }
    std::vector<double> waits;
    std::vector<std::size_t> each;
    for (int i = 0; i < count; ++i) {
        const Turns::Process &process = turns->processes[i];
        waits.insert(waits.end(), process.waits, process.waits + process.count);
        each.push_back(process.count);
    }
    if (failed || waits.empty()) {
        (void)fprintf(stderr, "a turn failed: run this on a controller of a lab\n");
        return 1;
    }
    std::sort(waits.begin(), waits.end());
    std::sort(each.begin(), each.end());
    const auto at = [&waits](double part) {
        return waits[static_cast<std::size_t>(part * static_cast<double>(waits.size() - 1))];
    };
    printf(
        "{\"kind\": \"%s\", \"processes\": %d, \"turns\": %zu, \"fewest\": %zu, \"most\": %zu, "
        "\"p50\": %.4f, \"p90\": %.4f, \"p99\": %.4f, \"longest\": %.4f}\n",
        kind.c_str(), count, waits.size(), each.front(), each.back(), at(0.5), at(0.9), at(0.99), waits.back());
    return 0;
}
