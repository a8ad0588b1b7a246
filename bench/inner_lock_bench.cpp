// The inner lock taken and released with nobody else about, beside the transfers that it needs and
// beside one update of a database on the same file system.
#include <benchmark/benchmark.h>
#include <kesta/kesta.h>
#include <sqlite3.h>

#include <array>
#include <cstdlib>
#include <string>

#include "sanfwctl.h"

namespace {

constexpr const char *database_path = "/var/run/kesta_sys/tmp/bench.db";
constexpr int clear_own_slot = 0;

int own_controller()
{
    static const int number = kestal_get_cnt_num_from_cpinfo(KESTA_CPINFO_OWN_NUMBER);
    return number;
}

void library_take_and_release(benchmark::State &state)
{
    const int own = own_controller();
    for (auto _ : state) {
        if (kestal_cntl_innerlock(own) != KESTA_OK ||
            kestal_reset_mycnt_innerlock_main(own, clear_own_slot) != KESTA_OK) {
            state.SkipWithError("the inner lock was not had: run this on a controller of a lab");
            break;
        }
    }
}
BENCHMARK(library_take_and_release);

// Check, claim, check again; and the release.
void raw_transfers(benchmark::State &state)
{
    std::array<unsigned char, 64> slots{};
    cpfw_nv_region_t region = 2;
    for (auto _ : state) {
        cpfw_nv_access_t look{slots.data(), 0, slots.size()};
        cpfw_nv_access_t claim{slots.data(), 0, 16};
        int failed = zKTsanfwctl_read_nv(-1, &region, &look, 1);
        failed |= zKTsanfwctl_write_nv(-1, &region, &claim, 1);
        failed |= zKTsanfwctl_read_nv(-1, &region, &look, 1);
        failed |= zKTsanfwctl_write_nv(-1, &region, &claim, 1);
        if (failed != 0) {
            state.SkipWithError("a transfer failed");
            break;
        }
    }
}
BENCHMARK(raw_transfers);

bool execute(sqlite3 *database, const char *text)
{
    return sqlite3_exec(database, text, nullptr, nullptr, nullptr) == SQLITE_OK;
}

void raw_database_update(benchmark::State &state)
{
    sqlite3 *database = nullptr;
    sqlite3_stmt *update = nullptr;
    if (sqlite3_open(database_path, &database) != SQLITE_OK ||
        !execute(database,
                 "PRAGMA journal_mode=WAL; PRAGMA synchronous=OFF;"
                 "CREATE TABLE IF NOT EXISTS slot (id INTEGER PRIMARY KEY, token INT);"
                 "INSERT OR REPLACE INTO slot VALUES (0, 0)") ||
        sqlite3_prepare_v2(database, "UPDATE slot SET token = token + 1 WHERE id = 0", -1, &update, nullptr) !=
            SQLITE_OK) {
        state.SkipWithError("the database can't be had: run this on a controller of a lab");
    }
    for (auto _ : state) {
        if (sqlite3_step(update) != SQLITE_DONE || sqlite3_reset(update) != SQLITE_OK) {
            state.SkipWithError("the update failed");
            break;
        }
    }
    sqlite3_finalize(update);
    sqlite3_close(database);
}
BENCHMARK(raw_database_update);

}  // namespace

BENCHMARK_MAIN();
