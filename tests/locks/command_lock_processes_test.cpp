// The command lock between controllers: processes of several controllers, stepped one NV transfer,
// sleep or mark at a time in orders drawn from printed seeds.
#include <cstdlib>
#include <map>
#include <random>
#include <set>

#include "interleaving.h"
#include "library_test.h"

using namespace test;

namespace {

constexpr int refused = -101;

// A controller that takes a lock of a type so often, and what else it does with it.
struct Caller {
    int controller;
    int lock_type;
    int rounds = 2;
    bool suspends = false;
};

std::string marked(const char *what, int lock_type) { return std::string(what) + " " + std::to_string(lock_type); }

KESTA_COMMAND_LOCKINFO own_slot(int controller)
{
    KESTA_COMMAND_LOCKINFO record;
    platform().nv.transfer(false, nv_lock(controller), &record, sizeof(record));
    return record;
}

// While a lock is held or suspended, an identifier of another second must not release it.
void try_foreign_release(int controller, const char *identifier)
{
    const std::string foreign = std::to_string(atoi(identifier) + 1);
    EXPECT_EQ(kestal_global_command_unlock_func(controller, foreign.c_str(), 0), -203);
}

// Returns whether the lock is there still. A retake that collides withdraws: then it is gone.
bool suspend_and_retake(const Caller &caller, char *identifier)
{
    mark(marked("leaving", caller.lock_type));
    EXPECT_EQ(kestal_global_command_unlock_func(caller.controller, identifier, 1), 0);
    const int result =
        kestal_global_command_lock_func(caller.controller, KESTA_LOCK_TYPE1, identifier, nullptr, 1, nullptr);
    EXPECT_TRUE(result == 0 || result == refused);
    if (result == 0) {
        mark(marked("holding", caller.lock_type));
        return true;
    }
    return own_slot(caller.controller).sign != 0;
}

void run_caller(const Caller &caller)
{
    for (int round = 0; round < caller.rounds; ++round) {
        platform().wall_seconds += 10 + caller.controller;  // an identifier of its own
        char identifier[64] = "";
        int met = -1;
        const int result =
            kestal_global_command_lock_func(caller.controller, caller.lock_type, identifier, nullptr, 0, &met);
        if (result == refused) {
            EXPECT_NE(met, -1);
            EXPECT_NE(met, caller.controller) << "nobody else writes the own slot";
            EXPECT_EQ(own_slot(caller.controller).status, 0) << "the slot is left free";
            continue;
        }
        ASSERT_EQ(result, 0);
        mark(marked("holding", caller.lock_type));
        try_foreign_release(caller.controller, identifier);
        if (caller.suspends && !suspend_and_retake(caller, identifier)) {
            continue;
        }
        mark(marked("leaving", caller.lock_type));
        ASSERT_EQ(kestal_global_command_unlock_func(caller.controller, identifier, 0), 0);
    }
}

// Who holds what, by what the processes say.
class Holders {
public:
    // Takes note of where a process stands now. Returns whether two locks overlap that must not.
    bool moved(int process, const std::string &standing)
    {
        if (standing.rfind("mark holding ", 0) == 0) {
            types_[process] = standing.back() - '0';
            return overlap();
        }
        if (standing.rfind("mark leaving ", 0) == 0 || standing == "end") {
            types_.erase(process);
        }
        return false;
    }
    bool two_of_type_2() const { return types_.size() > 1; }

private:
    bool overlap() const
    {
        if (types_.size() < 2) {
            return false;
        }
        for (const auto &[process, type] : types_) {
            if (type != KESTA_LOCK_TYPE2) {
                return true;
            }
        }
        return false;
    }
    std::map<int, int> types_;
};

struct Outcome {
    int overlaps = 0;
    int shared = 0;  // how often two locks of type 2 were held together
};

Outcome run_schedule(const std::vector<Caller> &callers, unsigned seed)
{
    reset();
    Interleaving processes;
    std::vector<int> running;
    for (const Caller &caller : callers) {
        running.push_back(processes.start(caller.controller, [&] { run_caller(caller); }));
    }
    std::mt19937 random(seed);
    Holders holders;
    Outcome outcome;
    while (!running.empty()) {
        const std::size_t pick = random() % running.size();
        const int process = running[pick];
        outcome.overlaps += holders.moved(process, processes.step(process));
        outcome.shared += holders.two_of_type_2();
        if (processes.ended(process)) {
            running.erase(running.begin() + static_cast<std::ptrdiff_t>(pick));
        }
    }
    for (int controller = 0; controller < 4; ++controller) {
        const KESTA_COMMAND_LOCKINFO left = own_slot(controller);
        EXPECT_EQ(left.status, 0) << "seed " << seed;
        EXPECT_EQ(left.sign, 0) << "seed " << seed;
        EXPECT_EQ(platform().int_at(nv_slot(controller)), 0) << "seed " << seed;
    }
    return outcome;
}

int schedules()
{
    const char *asked = getenv("KESTA_TEST_SCHEDULES");
    return asked ? atoi(asked) : 500;
}

Outcome run_schedules(const std::vector<Caller> &callers)
{
    Outcome sum;
    for (int seed = 1; seed <= schedules(); ++seed) {
        const Outcome outcome = run_schedule(callers, static_cast<unsigned>(seed));
        if (outcome.overlaps > 0) {
            ADD_FAILURE() << "locks overlap with seed " << seed;
        }
        sum.overlaps += outcome.overlaps;
        sum.shared += outcome.shared;
    }
    return sum;
}

}  // namespace

class CommandLockProcesses : public LibraryTest {};

TEST_F(CommandLockProcesses, TypeOneNeverOverlaps)
{
    EXPECT_EQ(run_schedules({{0, 1}, {1, 1}, {2, 1}, {3, 1}}).overlaps, 0);
}

TEST_F(CommandLockProcesses, TypeThreeNeverOverlaps)
{
    EXPECT_EQ(run_schedules({{0, 3}, {1, 3}, {2, 1}, {3, 2}}).overlaps, 0);
}

TEST_F(CommandLockProcesses, OnlyTypeTwoIsSharedAndItIsShared)
{
    const Outcome outcome = run_schedules({{0, 2}, {1, 2}, {2, 2}, {3, 1}});
    EXPECT_EQ(outcome.overlaps, 0);
    EXPECT_GT(outcome.shared, 0) << "some schedule lets two of type 2 coexist";
}

TEST_F(CommandLockProcesses, SuspendedLocksComeBackToTheirHolders)
{
    EXPECT_EQ(run_schedules({{0, 1, 2, true}, {1, 1, 2, true}, {2, 2}, {3, 3}}).overlaps, 0);
}

namespace {

// Two controllers in step: both read, both write, both read again; then each goes to its end.
void run_in_step(Interleaving &processes, int first, int second)
{
    const std::string writes[] = {"nv_write 200 24", "nv_write 224 24"};
    const int both[] = {first, second};
    const auto section = [&](int process, const std::string &access) {
        processes.run_until(process, access);
        processes.run_until(process, "nv_read 600 64");  // released, and before the next section
    };
    for (const int process : both) {
        section(process, "nv_read 200 96");
    }
    for (const int process : both) {
        section(process, writes[process == second]);
    }
    for (const int process : both) {
        processes.run_until(process, "nv_read 200 96");
        processes.run_until(process, "nv_write 6");  // its release
        processes.step(process);
    }
    for (const int process : both) {
        if (!processes.ended(process)) {
            processes.run_until(process, "end");
        }
    }
}

}  // namespace

TEST_F(CommandLockProcesses, TwoThatWriteBeforeEitherReadsAgainBothWithdraw)
{
    for (const int type : {KESTA_LOCK_TYPE1, KESTA_LOCK_TYPE3}) {
        reset();
        Interleaving processes;
        const auto attempt = [type](int controller) {
            return [type, controller] {
                char identifier[64];
                int met = -1;
                EXPECT_EQ(kestal_global_command_lock_func(controller, type, identifier, nullptr, 0, &met), refused);
                EXPECT_EQ(met, 1 - controller) << "the one that it met";
            };
        };
        const int first = processes.start(0, attempt(0));
        const int second = processes.start(1, attempt(1));
        run_in_step(processes, first, second);
        EXPECT_EQ(own_slot(0).status, 0);
        EXPECT_EQ(own_slot(1).status, 0);
    }
}

TEST_F(CommandLockProcesses, TwoOfTypeTwoThatWriteBeforeEitherReadsAgainBothHold)
{
    Interleaving processes;
    const auto attempt = [](int controller) {
        return [controller] {
            char identifier[64];
            EXPECT_EQ(kestal_global_command_lock_func(controller, KESTA_LOCK_TYPE2, identifier, nullptr, 0, nullptr),
                      0);
        };
    };
    const int first = processes.start(0, attempt(0));
    const int second = processes.start(1, attempt(1));
    run_in_step(processes, first, second);
    EXPECT_EQ(own_slot(0).status, 3);
    EXPECT_EQ(own_slot(1).status, 3);
}

TEST_F(CommandLockProcesses, OneThatWritesFirstIsMetByTheOneThatReadBefore)
{
    // The second one has read a free image, and writes after the first one has its lock: it finds
    // it when it reads again, and withdraws; the first one keeps its lock.
    Interleaving processes;
    const auto attempt = [](int controller, int expected) {
        return [controller, expected] {
            char identifier[64];
            EXPECT_EQ(kestal_global_command_lock_func(controller, KESTA_LOCK_TYPE1, identifier, nullptr, 0, nullptr),
                      expected);
        };
    };
    const int second = processes.start(1, attempt(1, refused));
    processes.run_until(second, "nv_read 200 96");
    processes.run_until(second, "nv_read 600 64");
    const int first = processes.start(0, attempt(0, 0));
    processes.run_until(first, "end");
    processes.run_until(second, "end");
    EXPECT_EQ(own_slot(0).status, 1);
    EXPECT_EQ(own_slot(1).status, 0);
}

TEST_F(CommandLockProcesses, DeathAtAnyStepLeavesAtMostTheOwnSlot)
{
    for (int steps = 0;; ++steps) {
        reset();
        Interleaving processes;
        const int victim = processes.start(0, [] { run_caller({0, KESTA_LOCK_TYPE1, 1}); });
        int taken = 0;
        while (taken < steps && !processes.ended(victim)) {
            processes.step(victim);
            ++taken;
        }
        if (processes.ended(victim)) {
            break;
        }
        processes.kill_process(victim);
        for (int other = 1; other < 4; ++other) {
            EXPECT_EQ(own_slot(other).status, 0) << "after step " << steps;
        }
        // Another controller sees it once its inner lock is cleared, and clears it after its time.
        const int sweeper = processes.start(1, [] {
            const int seen = kestal_global_command_lock_check(-1, nullptr, nullptr);
            EXPECT_GE(seen, 0);
            platform().clock_us += 601'000'000;
            EXPECT_EQ(kestal_global_command_lock_check(-1, nullptr, nullptr), 0);
        });
        while (!processes.ended(sweeper)) {
            processes.step(sweeper);
        }
        EXPECT_EQ(own_slot(0).status, 0) << "after step " << steps;
        EXPECT_EQ(own_slot(0).sign, 0);
    }
}

// What remains by design: it excludes controllers, and the processes of one share a slot. Callers keep
// those apart with a local lock.
TEST_F(CommandLockProcesses, TwoProcessesOfOneControllerCanBothHold)
{
    Interleaving processes;
    const int first = processes.start(0, [] {
        // It stops inside attempts, and must not keep the other one from its own there.
        platform().fail_kind("lockf");
        platform().fault_errno = 37;
        run_caller({0, KESTA_LOCK_TYPE1, 1});
    });
    processes.run_until(first, "nv_read 200 96");
    processes.run_until(first, "nv_read 600 64");  // it has read a free image
    const int second = processes.start(0, [] {
        char identifier[64];
        EXPECT_EQ(kestal_global_command_lock_func(0, KESTA_LOCK_TYPE1, identifier, nullptr, 0, nullptr), 0);
        mark("holding 1");
    });
    processes.run_until(second, "mark holding");
    processes.run_until(first, "mark holding");
    EXPECT_EQ(processes.standing(second), "mark holding 1") << "both hold";
}

// And: two controllers find the lock of a dead holder timed out at once. The second clearing hits the
// lock that was taken in between.
TEST_F(CommandLockProcesses, TwoControllersThatClearOneDeadLockCanLetTwoHold)
{
    Interleaving processes;
    const auto taker = [](int controller) {
        return [controller] {
            run_caller({controller, KESTA_LOCK_TYPE1, 1});
        };
    };
    const auto sweeper = [] {
        EXPECT_GT(kestal_global_command_lock_check(-1, nullptr, nullptr), 0);
        platform().clock_us += 601'000'000;
        EXPECT_EQ(kestal_global_command_lock_check(-1, nullptr, nullptr), 0);
    };
    const int dead = processes.start(0, taker(0));
    processes.run_until(dead, "mark holding");
    processes.kill_process(dead);
    const int slow = processes.start(2, sweeper);
    processes.run_until(slow, "nv_write 56 16");  // the group name goes first
    processes.run_until(slow, "nv_read 600 64");  // before the section that clears the slot
    const int quick = processes.start(1, sweeper);
    processes.run_until(quick, "end");
    const int again = processes.start(0, taker(0));
    processes.run_until(again, "mark holding");
    processes.run_until(slow, "end");
    const int other = processes.start(3, taker(3));
    processes.run_until(other, "mark holding");
    EXPECT_EQ(processes.standing(again), "mark holding 1") << "both hold";
}
