// One process of a storm of locks, on a controller of a lab: it takes and releases the inner lock and
// the command lock in turn, and looks each time whether anybody else is inside.
//   lock_storm FOLDER --cycles N | --seconds N      FOLDER is shared by all controllers
#include <errno.h>
#include <fcntl.h>
#include <kesta/kesta.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>

namespace {

constexpr int counter_block = KESTA_BLOCK_OLD_BACKUP_NAME;  // 32 bytes that nothing else uses here
constexpr int own_slot = 0;
constexpr int lock_busy = 1;

struct Counter {
    int owner;
    int count;
    char rest[KESTA_AREA_NAME_SIZE - 2 * sizeof(int)];
};
static_assert(sizeof(Counter) == KESTA_AREA_NAME_SIZE);

struct Tally {
    int sections = 0;
    int doubled = 0;
    int held = 0;
    int refused = 0;
    int overlaps = 0;
    int failures = 0;
    long longest_gap_ms = 0;  // between two sections that were had
};

long milliseconds()
{
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
}

bool transfer(int flag, Counter &counter)
{
    return kestal_non_volatile_rw_memory(counter_block, flag, &counter, sizeof(counter)) == KESTA_OK;
}

// Writes who is inside and counts: a second one inside changes the owner, or loses a count.
void inner_section(int own, Tally &tally)
{
    if (kestal_cntl_innerlock(own) != KESTA_OK) {
        ++tally.failures;
        return;
    }
    Counter counter{};
    bool good = transfer(KESTA_BLOCK_READ, counter);
    const int before = counter.count;
    counter.owner = getpid();
    good = good && transfer(KESTA_BLOCK_WRITE, counter);
    Counter seen{};
    good = good && transfer(KESTA_BLOCK_READ, seen);
    tally.doubled += good && (seen.owner != getpid() || seen.count != before);  // a failed transfer says nothing
    ++counter.count;
    good = good && transfer(KESTA_BLOCK_WRITE, counter);
    tally.failures += !good;
    ++tally.sections;
    tally.failures += kestal_reset_mycnt_innerlock_main(own, own_slot) != KESTA_OK;
}

// A folder that only one can make.
void command_section(int own, int type, const std::string &mark, Tally &tally)
{
    char identifier[KESTA_LOCK_IDENTIFIER_SIZE];
    const int result = kestal_global_command_lock_func(own, type, identifier, nullptr, 0, nullptr);
    if (result == KESTA_ERR_LOCKED) {
        ++tally.refused;
        return;
    }
    if (result != KESTA_OK) {
        ++tally.failures;
        return;
    }
    ++tally.held;
    tally.overlaps += mkdir(mark.c_str(), 0700) != 0;
    (void)rmdir(mark.c_str());  // a second one inside has been counted
    tally.failures += kestal_global_command_unlock_func(own, identifier, 0) != KESTA_OK;
}

// Processes of one controller share a slot: the local lock keeps them apart.
void command_section_locally(int own, int type, const std::string &mark, Tally &tally)
{
    int fd = -1;
    char name[] = "storm";
    if (kestal_file_command_lock(&fd, name) != KESTA_OK) {
        ++tally.refused;
        return;
    }
    command_section(own, type, mark, tally);
    tally.failures += kestal_file_command_unlock(&fd) != KESTA_OK;
}

int usage()
{
    fputs("usage: lock_storm FOLDER --cycles N | --seconds N\n", stderr);
    return 2;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc != 4 || (strcmp(argv[2], "--cycles") != 0 && strcmp(argv[2], "--seconds") != 0)) {
        return usage();
    }
    const std::string mark = std::string(argv[1]) + "/held";
    const bool by_cycles = strcmp(argv[2], "--cycles") == 0;
    const long limit = atol(argv[3]);
    const int own = kestal_get_cnt_num_from_cpinfo(KESTA_CPINFO_OWN_NUMBER);
    if (own < 0) {
        fputs("lock_storm: the own number is not known: run this on a controller\n", stderr);
        return 1;
    }
    Tally tally;
    long last = milliseconds();
    const time_t end = time(nullptr) + limit;
    for (long cycle = 0; by_cycles ? cycle < limit : time(nullptr) < end; ++cycle) {
        const int before = tally.sections;
        inner_section(own, tally);
        if (tally.sections != before) {
            tally.longest_gap_ms = std::max(tally.longest_gap_ms, milliseconds() - last);
            last = milliseconds();
        }
        const int type = cycle % 2 == 0 ? KESTA_LOCK_TYPE1 : KESTA_LOCK_TYPE3;
        command_section_locally(own, type, mark, tally);
    }
    printf("%d %d %d %d %d %d %ld\n", tally.sections, tally.doubled, tally.held, tally.refused, tally.overlaps,
           tally.failures, tally.longest_gap_ms);
    return tally.doubled + tally.overlaps + tally.failures == 0 ? 0 : lock_busy;
}
