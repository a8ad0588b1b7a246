#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "controller_state.h"
#include "library_test.h"

using namespace test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr std::int64_t second_us = 1'000'000;
constexpr const char *record_file = "/var/run/kesta_sys/tmp/.innerlock";

}  // namespace

class InnerLock : public LibraryTest {
protected:
    // What a holder leaves in a slot.
    void hold(int controller, std::int64_t token, int status = 1)
    {
        p().set_int(nv_slot(controller), status);
        p().set_int(nv_slot(controller) + 4, 0);
        memcpy(p().nv.data() + nv_slot(controller) + 8, &token, sizeof(token));
    }
    void clear(int controller) { hold(controller, 0, 0); }
    std::int64_t token(int controller)
    {
        std::int64_t value;
        memcpy(&value, p().nv.data() + nv_slot(controller) + 8, sizeof(value));
        return value;
    }
    // Runs an action at the Nth sleep of the acquisition (1, 2, ...).
    void at_sleep(std::function<void(int)> action)
    {
        p().before_call = [this, action](const std::string &call) {
            if (call.rfind("usleep", 0) == 0) {
                action(++sleeps_);
            }
        };
    }
    // Runs an action after the Nth NV transfer of a kind.
    void after(const std::string &kind, int nth, std::function<void()> action)
    {
        p().after_call = [=, seen = 0](const std::string &call) mutable {
            if (call.rfind(kind, 0) == 0 && ++seen == nth) {
                action();
            }
        };
    }

private:
    int sleeps_ = 0;
};

TEST_F(InnerLock, FreeSlotsTakeOneAttemptAndOneWrite)
{
    p().wall_seconds = 123456;
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
    EXPECT_THAT(p().calls, ElementsAre("nv_read 600 64", "nv_write 600 16", "nv_read 600 64"));
    EXPECT_EQ(p().int_at(nv_slot(0)), 1);
    EXPECT_EQ(p().int_at(nv_slot(0) + 4), 0);
    EXPECT_EQ(token(0), 3457);
    EXPECT_EQ(p().traces.front().text, "[kestal_cntl_innerlock] InnerLock Control Start.(cntno=0/mycntno=0)");
    EXPECT_EQ(p().traces.back(), (Trace{5, "[kestal_cntl_innerlock] InnerLock Control Success End.",
                                        "../common/kestal_cntl_innerlock.cpp"}));
    EXPECT_THAT(p().texts(1), IsEmpty());
    EXPECT_EQ(kestal_reset_mycnt_innerlock_main(0, 0), 0);
    EXPECT_TRUE(inner_lock_is_free());
    EXPECT_EQ(token(0), 0);
}

TEST_F(InnerLock, TokenIsInOneToTenThousand)
{
    for (const auto &[now, expected] : {std::pair{10000, 1}, {9999, 10000}, {0, 1}, {20001, 2}}) {
        p().wall_seconds = now;
        ASSERT_EQ(kestal_cntl_innerlock(0), 0);
        EXPECT_EQ(token(0), expected);
        kestal_reset_mycnt_innerlock_main(0, 0);
    }
}

TEST_F(InnerLock, BadNumberDoesNotTouchNv)
{
    for (const int number : {4, -1, 100}) {
        EXPECT_EQ(kestal_cntl_innerlock(number), -931);
        EXPECT_TRUE(
            p().traced(1, "[kestal_cntl_innerlock] InnerLock Control Error.(cntno=" + std::to_string(number) + ")"));
        EXPECT_EQ(kestal_reset_mycnt_innerlock_main(number, 0), -931);
        EXPECT_EQ(kestal_reset_mycnt_innerlock_main(number, 1), -931);
        EXPECT_TRUE(p().traced(1, "[kestal_reset_mycnt_innerlock] InnerLock Reset Error.(cntno=" +
                                      std::to_string(number) + ")"));
        EXPECT_EQ(kestal_lockcheck_innerlock(number, nullptr, nullptr, nullptr), -931);
        EXPECT_TRUE(
            p().traced(1, "[lockcheck_innerlock] InnerLock Look Error(cntno=" + std::to_string(number) + ") ."));
    }
    EXPECT_THAT(p().calls, IsEmpty());
}

TEST_F(InnerLock, UnknownOwnNumberFails)
{
    controller_state.own_number = -1;
    EXPECT_EQ(kestal_cntl_innerlock(0), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_cntl_innerlock] Get Block ID(ID TYPE=INNERLOCK) Error. rtn=-931"));
    EXPECT_EQ(kestal_reset_mycnt_innerlock_main(0, 0), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_reset_mycnt_innerlock] Get Block ID(ID TYPE=INNERLOCK) Error. rtn=-931"));
    EXPECT_THAT(p().calls, IsEmpty());
    EXPECT_EQ(kestal_reset_mycnt_innerlock_main(2, 1), 0) << "a given slot needs no own number";
}

TEST_F(InnerLock, ClaimsTheOwnSlotWhateverTheCallerSays)
{
    controller_state.own_number = 3;
    hold(0, 5);
    at_sleep([&](int) { clear(0); });
    EXPECT_EQ(kestal_cntl_innerlock(1), 0);
    EXPECT_EQ(p().int_at(nv_slot(3)), 1);
    EXPECT_THAT(p().calls, Contains("usleep 110000")) << "the caller's number chooses the back-off";
    EXPECT_EQ(kestal_reset_mycnt_innerlock_main(1, 0), 0);
    EXPECT_EQ(p().int_at(nv_slot(3)), 0);
}

TEST_F(InnerLock, WaitsForAHolderThatReleases)
{
    for (int own = 0; own < 4; ++own) {
        reset(own);
        hold((own + 1) % 4, 77);
        int slept = 0;
        p().before_call = [&](const std::string &call) {
            if (call.rfind("usleep", 0) == 0 && ++slept == 3) {
                clear((own + 1) % 4);
            }
        };
        EXPECT_EQ(kestal_cntl_innerlock(own), 0);
        EXPECT_THAT(p().texts(4),
                    ElementsAre("[lockcheck_innerlock] InnerLock Look Error. LockedNo=" + std::to_string((own + 1) % 4),
                                "[kestal_cntl_innerlock] lock retry...(0)",
                                "[lockcheck_innerlock] InnerLock Look Error. LockedNo=" + std::to_string((own + 1) % 4),
                                "[kestal_cntl_innerlock] lock retry...(1)",
                                "[lockcheck_innerlock] InnerLock Look Error. LockedNo=" + std::to_string((own + 1) % 4),
                                "[kestal_cntl_innerlock] lock retry...(2)"));
        const std::string back_off = "usleep " + std::to_string(100000 + 10000 * own);
        EXPECT_THAT(p().calls_of("usleep"), ElementsAre(back_off, back_off, back_off));
        EXPECT_EQ(p().calls_of("nv_write").size(), 1u);
    }
}

TEST_F(InnerLock, OwnSlotOfAnotherProcessIsWaitedForToo)
{
    hold(0, 42);
    at_sleep([&](int n) {
        if (n == 2) {
            clear(0);
        }
    });
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
    EXPECT_EQ(p().calls_of("usleep").size(), 2u);
}

TEST_F(InnerLock, SlotThatKeepsItsTokenIsClearedAfterMoreThanThirtySeconds)
{
    for (const int dead : {0, 2}) {  // the own slot included
        reset();
        hold(dead, 4711);
        const std::int64_t start = p().clock_us / second_us;
        EXPECT_EQ(kestal_cntl_innerlock(0), 0);
        EXPECT_THAT(p().texts(2),
                    ElementsAre("[kestal_cntl_innerlock] InnerLock Irrigal Unlocked(" + std::to_string(dead) + ")"));
        EXPECT_TRUE(p().traced(3, "[compare_innerlock_timeout] inner_lock timeout (cntno:" + std::to_string(dead) +
                                      ") (current_clock:" + std::to_string(start + 31) +
                                      ", clock:" + std::to_string(start) + ")"));
        // 310 back-offs of 100 ms: not one attempt earlier, and the next attempt acquires.
        EXPECT_EQ(p().calls_of("usleep").size(), 311u);
        EXPECT_EQ(p().int_at(nv_slot(0)), 1);
        if (dead != 0) {
            EXPECT_EQ(p().int_at(nv_slot(dead)), 0);
            EXPECT_EQ(token(dead), 0);
        }
    }
}

TEST_F(InnerLock, ChangedTokenRestartsTheObservation)
{
    hold(1, 100);
    at_sleep([&](int n) {
        if (n == 300) {
            hold(1, 101);
        }
    });
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
    EXPECT_EQ(p().calls_of("usleep").size(), 300u + 311u);
}

TEST_F(InnerLock, ObservationsAreNewInEachCall)
{
    // Held by a live holder for a minute that renews nothing: each call gives up before the sweep.
    hold(1, 100);
    at_sleep([&](int n) {
        if (n == 299) {
            clear(1);
        }
    });
    ASSERT_EQ(kestal_cntl_innerlock(0), 0);
    kestal_reset_mycnt_innerlock_main(0, 0);
    hold(1, 100);
    p().calls.clear();
    at_sleep([&](int n) {
        if (n == 299 + 299) {
            clear(1);
        }
    });
    ASSERT_EQ(kestal_cntl_innerlock(0), 0);
    EXPECT_EQ(p().count("Irrigal"), 0);
}

TEST_F(InnerLock, ThousandAttemptsGiveUp)
{
    hold(1, 1);
    std::int64_t renewed = 1;
    at_sleep([&](int n) {
        if (n % 200 == 0) {
            hold(1, ++renewed);
        }
    });
    EXPECT_EQ(kestal_cntl_innerlock(0), -172);
    EXPECT_EQ(p().calls_of("usleep").size(), 1000u);
    EXPECT_THAT(p().texts(3), ElementsAre("[kestal_cntl_innerlock] [10/1000] InnerLock NG",
                                          "[kestal_cntl_innerlock] [110/1000] InnerLock NG",
                                          "[kestal_cntl_innerlock] [210/1000] InnerLock NG",
                                          "[kestal_cntl_innerlock] [310/1000] InnerLock NG",
                                          "[kestal_cntl_innerlock] [410/1000] InnerLock NG",
                                          "[kestal_cntl_innerlock] [510/1000] InnerLock NG",
                                          "[kestal_cntl_innerlock] [610/1000] InnerLock NG",
                                          "[kestal_cntl_innerlock] [710/1000] InnerLock NG",
                                          "[kestal_cntl_innerlock] [810/1000] InnerLock NG",
                                          "[kestal_cntl_innerlock] [910/1000] InnerLock NG"));
    EXPECT_THAT(p().texts(1), ElementsAre("[kestal_cntl_innerlock] InnerLock  ERROR"));
    EXPECT_TRUE(p().traced(4, "[kestal_cntl_innerlock] lock retry...(999)"));
    // The mutex is free again: the next call doesn't hang.
    p().before_call = nullptr;
    clear(1);
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
}

TEST_F(InnerLock, CollisionWithdrawsTheClaim)
{
    after("nv_write 600", 1, [&] { hold(1, 9); });  // the other claims in the same moment
    at_sleep([&](int) {
        EXPECT_EQ(p().int_at(nv_slot(0)), 0) << "withdrawn before sleeping";
        clear(1);
    });
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
    EXPECT_TRUE(p().traced(3, "[kestal_cntl_innerlock] InnerLock Control Check Error.(rtn=-173, rtnstatus=0)"));
    EXPECT_TRUE(p().traced(5, "[kestal_cntl_innerlock] InnerLock Reset"));
    EXPECT_THAT(p().calls, ElementsAre("nv_read 600 64", "nv_write 600 16", "nv_read 600 64", "nv_write 600 16",
                                       "usleep 100000", "nv_read 600 64", "nv_write 600 16", "nv_read 600 64"));
}

TEST_F(InnerLock, ClaimLostToAnotherTokenIsLeftToItsNewOwner)
{
    after("nv_write 600", 1, [&] { hold(0, 31337); });
    at_sleep([&](int) {
        EXPECT_EQ(token(0), 31337) << "left as it is";
        clear(0);
    });
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
    EXPECT_TRUE(p().traced(3, "[kestal_cntl_innerlock] InnerLock Control Check Error.(rtn=-173, rtnstatus=1)"));
    EXPECT_EQ(p().count("InnerLock Reset"), 0);
}

TEST_F(InnerLock, ClaimClearedBehindTheBackPasses)
{
    after("nv_write 600", 1, [&] { clear(0); });
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
    EXPECT_EQ(p().calls_of("usleep").size(), 0u);
}

TEST_F(InnerLock, FailedFirstCheckEndsTheCall)
{
    p().fail_kind("nv_read", 0, 5);
    EXPECT_EQ(kestal_cntl_innerlock(0), -1);
    EXPECT_TRUE(p().traced(1, "[lockcheck_innerlock] InnerLock Look Read Error.rtn=-1"));
    EXPECT_TRUE(p().traced(1, "[kestal_cntl_innerlock] kestal_lockcheck_innerlock Error. rtn=-171"));
    EXPECT_EQ(kestal_cntl_innerlock(0), 0) << "the mutex is free";
}

TEST_F(InnerLock, FailedClaimEndsTheCall)
{
    p().fail_kind("nv_write", 0, 5);
    EXPECT_EQ(kestal_cntl_innerlock(0), -172);
    EXPECT_TRUE(p().traced(1, "[kestal_cntl_innerlock] InnerLock Set Failed. rtn=-1"));
    EXPECT_TRUE(inner_lock_is_free());
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
}

TEST_F(InnerLock, FailedRecheckRetriesAndLeavesTheClaimToTheSweep)
{
    p().fail_kind("nv_read", 1, 5);
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
    EXPECT_TRUE(p().traced(3, "[kestal_cntl_innerlock] InnerLock Control Check Error.(rtn=-171, rtnstatus=0)"));
    EXPECT_EQ(p().count("[kestal_cntl_innerlock] InnerLock Reset"), 0) << "not withdrawn";
    EXPECT_TRUE(p().traced(2, "[kestal_cntl_innerlock] InnerLock Irrigal Unlocked(0)"));
}

TEST_F(InnerLock, FailedWithdrawalEndsTheCall)
{
    after("nv_write 600", 1, [&] {
        hold(1, 9);
        p().fail_kind("nv_write", 0, 5);
    });
    EXPECT_EQ(kestal_cntl_innerlock(0), -172);
    EXPECT_TRUE(p().traced(1, "[kestal_cntl_innerlock] InnerLock Reset Failed.rtn=-1"));
    EXPECT_EQ(p().int_at(nv_slot(0)), 1) << "left to a later waiter's sweep";
}

TEST_F(InnerLock, SweepThatCanNotClearGoesOn)
{
    hold(1, 9);
    hold(2, 9);
    p().fail_kind("nv_write", 0, 5);  // the first clear
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
    EXPECT_EQ(p().count("InnerLock Irrival Unlocked Error.(rtn=-172)"), 1);
    EXPECT_TRUE(p().traced(2, "[kestal_cntl_innerlock] InnerLock Irrigal Unlocked(1)"));
    EXPECT_TRUE(p().traced(2, "[kestal_cntl_innerlock] InnerLock Irrigal Unlocked(2)"));
}

TEST_F(InnerLock, FailedReleaseIsReported)
{
    ASSERT_EQ(kestal_cntl_innerlock(0), 0);
    p().fail_kind("nv_write", 0, 5);
    EXPECT_EQ(kestal_reset_mycnt_innerlock_main(0, 0), -172);
    EXPECT_TRUE(p().traced(1, "[kestal_reset_mycnt_innerlock] InnerLock Reset Failed.rtn=-1"));
    EXPECT_EQ(kestal_reset_mycnt_innerlock_main(0, 2), 0) << "any flag but 1 is a release";
    EXPECT_TRUE(inner_lock_is_free());
}

TEST_F(InnerLock, ReleaseClearsOneSlotWhoeverHoldsIt)
{
    hold(0, 1);
    hold(2, 2);
    EXPECT_EQ(kestal_reset_mycnt_innerlock_main(2, 0), 0);
    EXPECT_EQ(p().int_at(nv_slot(0)), 0) << "the own one";
    EXPECT_EQ(p().int_at(nv_slot(2)), 1);
    EXPECT_EQ(kestal_reset_mycnt_innerlock_main(2, 1), 0);
    EXPECT_TRUE(inner_lock_is_free());
    EXPECT_THAT(p().texts(5), Contains("[kestal_reset_mycnt_innerlock] InnerLock Reset Start.(cntno=2)"));
    EXPECT_THAT(p().texts(5), Contains("[kestal_reset_mycnt_innerlock] InnerLock Reset End."));
}

// ---------------------------------------------------------------- the check

TEST_F(InnerLock, CheckCopiesTheSlotsAndStopsAtTheFirstThatBlocks)
{
    hold(1, 5);
    hold(3, 6);
    unsigned char slots[64];
    memset(slots, 0xee, sizeof(slots));
    int status = 9;
    EXPECT_EQ(kestal_lockcheck_innerlock(0, slots, nullptr, &status), -173);
    EXPECT_EQ(memcmp(slots, p().nv.data() + nv_slot0, 64), 0);
    EXPECT_EQ(status, 0);
    EXPECT_THAT(p().texts(4), ElementsAre("[lockcheck_innerlock] InnerLock Look Error. LockedNo=1"));
    EXPECT_THAT(p().calls, ElementsAre("nv_read 600 64"));
}

TEST_F(InnerLock, CheckWithoutOwnIsBlockedByTheCallersSlot)
{
    hold(2, 5);
    EXPECT_EQ(kestal_lockcheck_innerlock(2, nullptr, nullptr, nullptr), -173);
    EXPECT_EQ(kestal_lockcheck_innerlock(1, nullptr, nullptr, nullptr), -173);
}

TEST_F(InnerLock, CheckWithOwnComparesTheWholeToken)
{
    KESTA_INNERLOCK_BUF own{1, 0, 5};
    int status = 9;
    hold(2, 5);
    EXPECT_EQ(kestal_lockcheck_innerlock(2, nullptr, &own, &status), 0);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(p().traced(5, "[lockcheck_innerlock] InnerLock Look End."));
    hold(2, 5 + (std::int64_t{1} << 32));  // differs in the upper half only
    EXPECT_EQ(kestal_lockcheck_innerlock(2, nullptr, &own, &status), -173);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(kestal_lockcheck_innerlock(2, nullptr, &own, nullptr), -173);
    hold(2, 6, 0);  // cleared: its token doesn't matter
    EXPECT_EQ(kestal_lockcheck_innerlock(2, nullptr, &own, &status), 0);
    EXPECT_EQ(status, 0);
}

TEST_F(InnerLock, AnyOtherStatusThanZeroBlocks)
{
    hold(3, 5, -1);
    EXPECT_EQ(kestal_lockcheck_innerlock(0, nullptr, nullptr, nullptr), -173);
    hold(3, 5, 2);
    EXPECT_EQ(kestal_lockcheck_innerlock(0, nullptr, nullptr, nullptr), -173);
}

TEST_F(InnerLock, FailedReadLeavesTheOutputs)
{
    p().fail_kind("nv_read");
    char slots[64] = "untouched";
    int status = 9;
    EXPECT_EQ(kestal_lockcheck_innerlock(0, slots, nullptr, &status), -171);
    EXPECT_STREQ(slots, "untouched");
    EXPECT_EQ(status, 9);
}

// ---------------------------------------------------------------- the stale test

TEST_F(InnerLock, StaleMeansMoreThanThirtyWholeSeconds)
{
    KESTAL_LOCKBUFFER_STRUCT seen[4]{};
    p().clock_us = 100 * second_us + 999'999;
    EXPECT_EQ(kestal_compare_innerlock_timeout(1, 7, seen), 0);
    EXPECT_EQ(seen[1].value, 7);
    EXPECT_EQ(seen[1].clock, 100);
    EXPECT_TRUE(p().traced(5, "[compare_innerlock_timeout] inner_lock(cnt1) set value = 7, clock= 100"));
    p().clock_us = 130 * second_us + 999'999;
    EXPECT_EQ(kestal_compare_innerlock_timeout(1, 7, seen), 0);
    EXPECT_TRUE(p().traced(5, "[compare_innerlock_timeout] same inner_lock value = 7"));
    p().clock_us = 131 * second_us;
    EXPECT_EQ(kestal_compare_innerlock_timeout(1, 7, seen), 1);
    EXPECT_EQ(seen[1].clock, 100) << "stays";
    EXPECT_EQ(kestal_compare_innerlock_timeout(1, 8, seen), 0);
    EXPECT_EQ(seen[1].clock, 131);
    EXPECT_EQ(kestal_compare_innerlock_timeout(1, 0, seen), 0);
    EXPECT_EQ(seen[1].clock, 0);
    EXPECT_EQ(seen[0].value, 0) << "the other records are not touched";
}

TEST_F(InnerLock, ZeroTokenIsStaleOnAMachineThatHasRunLongEnough)
{
    // A zeroed record holds value 0 and clock 0: a held slot with token 0 equals it at once.
    KESTAL_LOCKBUFFER_STRUCT seen[4]{};
    p().clock_us = 31 * second_us;
    EXPECT_EQ(kestal_compare_innerlock_timeout(0, 0, seen), 1);
    p().clock_us = 30 * second_us;
    EXPECT_EQ(kestal_compare_innerlock_timeout(0, 0, seen), 0);
}

TEST_F(InnerLock, StaleTestRefusesBadArguments)
{
    KESTAL_LOCKBUFFER_STRUCT seen[4]{};
    EXPECT_EQ(kestal_compare_innerlock_timeout(4, 1, seen), -931);
    EXPECT_EQ(kestal_compare_innerlock_timeout(-1, 1, seen), -931);
    EXPECT_EQ(kestal_compare_innerlock_timeout(0, 1, nullptr), -931);
}

// ---------------------------------------------------------------- the record lock

namespace {

// Another process that holds the record lock until told to let go.
class RecordHolder {
public:
    RecordHolder()
    {
        int ready[2];
        int go[2];
        EXPECT_EQ(pipe(ready), 0);
        EXPECT_EQ(pipe(go), 0);
        child_ = fork();
        if (child_ == 0) {
            close(go[1]);
            const int fd = ::open(record_file, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
            const bool held = fd >= 0 && lockf(fd, F_TLOCK, 0) == 0;
            char byte = held ? 'y' : 'n';
            if (::write(ready[1], &byte, 1) != 1 || ::read(go[0], &byte, 1) < 0) {
                _exit(1);
            }
            _exit(0);
        }
        close(go[0]);
        close(ready[1]);
        char byte = 'n';
        EXPECT_EQ(::read(ready[0], &byte, 1), 1);
        EXPECT_EQ(byte, 'y');
        close(ready[0]);
        go_ = go[1];
    }
    ~RecordHolder() { let_go(); }
    RecordHolder(const RecordHolder &) = delete;
    RecordHolder &operator=(const RecordHolder &) = delete;

    void let_go()
    {
        if (child_ > 0) {
            close(go_);
            EXPECT_EQ(waitpid(child_, nullptr, 0), child_);
            child_ = -1;
        }
    }

private:
    pid_t child_;
    int go_ = -1;
};

bool record_is_locked_by_this_process()
{
    // Another process's view: the own locks never stand in one's own way.
    const pid_t child = fork();
    if (child == 0) {
        const int fd = ::open(record_file, O_RDWR | O_CLOEXEC);
        _exit(fd >= 0 && lockf(fd, F_TEST, 0) == 0 ? 0 : 1);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status != 0;
}

}  // namespace

TEST_F(InnerLock, BusyRecordLockIsAnAttemptThatLooksAndWritesNothing)
{
    RecordHolder other;
    p().calls.clear();
    p().traces.clear();
    at_sleep([&](int n) {
        if (n == 2) {
            other.let_go();
        }
    });
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
    EXPECT_THAT(p().texts(4),
                ElementsAre("[kestal_cntl_innerlock] lock retry...(0)", "[kestal_cntl_innerlock] lock retry...(1)"));
    EXPECT_THAT(p().calls_of("nv_"),
                ElementsAre("nv_read 600 64", "nv_read 600 64", "nv_read 600 64", "nv_write 600 16", "nv_read 600 64"));
}

TEST_F(InnerLock, FailedLookEndsTheCallWhileTheRecordLockIsBusyToo)
{
    RecordHolder other;
    p().fail_kind("nv_read", 0, 5);
    EXPECT_EQ(kestal_cntl_innerlock(0), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_cntl_innerlock] kestal_lockcheck_innerlock Error. rtn=-171"));
}

TEST_F(InnerLock, RecordLockThatStaysBusyForMoreThanThirtySecondsIsPassedBy)
{
    for (int own = 0; own < 4; ++own) {
        reset(own);
        RecordHolder stopped;
        EXPECT_EQ(kestal_cntl_innerlock(own), 0);
        const unsigned back_off = 100000 + 10000 * static_cast<unsigned>(own);
        const std::size_t sleeps = p().calls_of("usleep").size();
        EXPECT_EQ(sleeps, (31 * 1000000 + back_off - 1) / back_off) << "not one attempt earlier";
        EXPECT_THAT(p().texts(1), IsEmpty());
        EXPECT_THAT(p().texts(2), IsEmpty());
        EXPECT_EQ(p().int_at(nv_slot(own)), 1);
    }
}

TEST_F(InnerLock, DeadSlotsAreObservedWhileTheRecordLockIsBusy)
{
    for (const int dead : {0, 2}) {
        reset();
        hold(dead, 4711);
        RecordHolder stopped;
        EXPECT_EQ(kestal_cntl_innerlock(0), 0);
        EXPECT_THAT(p().texts(2),
                    ElementsAre("[kestal_cntl_innerlock] InnerLock Irrigal Unlocked(" + std::to_string(dead) + ")"));
        EXPECT_EQ(p().calls_of("usleep").size(), 311u) << "both ran in the same 30 seconds";
    }
}

TEST_F(InnerLock, RecordLockThatWasFreeInBetweenIsWaitedForAnew)
{
    auto first = std::make_unique<RecordHolder>();
    std::unique_ptr<RecordHolder> second;
    hold(1, 1);
    at_sleep([&](int n) {
        if (n == 200) {
            first->let_go();
            hold(1, 2);
        } else if (n == 201) {
            second = std::make_unique<RecordHolder>();
        } else if (n == 250) {
            clear(1);
        }
    });
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
    EXPECT_EQ(p().calls_of("usleep").size(), 201u + 309u);
}

TEST_F(InnerLock, WhoeverWasStoppedAfterALookWritesNothingAndLooksAnew)
{
    for (const int stop_at : {1, 2}) {  // the first look, and the one after the claim
        reset();
        after("nv_read", stop_at, [&] {
            p().clock_us += 31 * second_us;
            p().wall_seconds += 31;
        });
        EXPECT_EQ(kestal_cntl_innerlock(0), 0);
        EXPECT_TRUE(p().traced(4, "[kestal_cntl_innerlock] lock retry...(0)"));
        EXPECT_EQ(p().count("Control Check Error"), 0);
        if (stop_at == 1) {
            EXPECT_THAT(p().calls, ElementsAre("nv_read 600 64", "usleep 100000", "nv_read 600 64", "nv_write 600 16",
                                               "nv_read 600 64"));
            EXPECT_EQ(token(0), 1'000'031 % 10000 + 1) << "a token that nobody has seen before";
        } else {
            EXPECT_EQ(p().calls_of("nv_write").size(), 3u) << "the sweep cleared the claim";
            EXPECT_TRUE(p().traced(2, "[kestal_cntl_innerlock] InnerLock Irrigal Unlocked(0)"));
        }
    }
}

TEST_F(InnerLock, WhoeverWasStoppedBeforeItsSweepClearsNothing)
{
    hold(1, 77);
    int looks = 0;
    p().after_call = [&](const std::string &call) {
        if (call == "nv_read 600 64" && ++looks == 320) {
            ADD_FAILURE() << "never cleared";
            clear(1);
        }
        if (call == "nv_read 600 64" && looks == 2) {
            p().clock_us += 31 * second_us;  // stale now, but the look is as old
        }
    };
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
    EXPECT_EQ(looks, 2 + 1 + 2) << "cleared by the look after, then acquired";
    EXPECT_EQ(p().count("Irrigal"), 1);
}

// A trace may block for as long: the claim that was to be withdrawn may be somebody else's by then.
TEST_F(InnerLock, WhoeverWasStoppedBeforeItWithdrawsLeavesTheSlot)
{
    after("nv_write", 1, [&] { hold(1, 5); });
    p().after_trace = [&](const std::string &text) {
        if (text == "[kestal_cntl_innerlock] InnerLock Reset") {
            p().clock_us += 31 * second_us;
            p().after_trace = nullptr;
            clear(1);
            hold(0, 4711);  // another process of this controller has passed it by
        }
    };
    at_sleep([&](int n) {
        if (n == 1) {
            EXPECT_EQ(token(0), 4711);
            clear(0);
        }
    });
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
    EXPECT_EQ(p().count("InnerLock Reset Failed"), 0);
    EXPECT_EQ(p().calls_of("nv_write").size(), 2u) << "its claim, and the one that held";
}

TEST_F(InnerLock, ThirtySecondsExactlyAreNotLate)
{
    after("nv_read", 1, [&] { p().clock_us += 30 * second_us; });
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
    EXPECT_EQ(p().calls_of("usleep").size(), 0u);
}

TEST_F(InnerLock, RecordLockCoversTheAttemptAndTheSweepButNoSleepAndNotTheSection)
{
    hold(1, 5);
    int transfers = 0;
    p().before_call = [&](const std::string &call) {
        if (call.rfind("nv_", 0) == 0) {
            ++transfers;
            EXPECT_TRUE(record_is_locked_by_this_process()) << call;
        } else if (call.rfind("usleep", 0) == 0) {
            EXPECT_FALSE(record_is_locked_by_this_process());
            p().clock_us += 40 * second_us;  // the next sweep finds the slot stale
        }
    };
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
    EXPECT_GE(transfers, 6);
    EXPECT_EQ(p().count("Irrigal"), 1);
    p().before_call = nullptr;
    EXPECT_FALSE(record_is_locked_by_this_process());
    kestal_reset_mycnt_innerlock_main(0, 0);
}

TEST_F(InnerLock, GoesOnWithoutARecordFile)
{
    std::filesystem::remove_all("/var/run/kesta_sys");
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
    EXPECT_THAT(p().texts(1), IsEmpty());
    kestal_reset_mycnt_innerlock_main(0, 0);
    std::filesystem::create_directories(record_file);  // a folder where the file should be
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
    EXPECT_THAT(p().texts(1), IsEmpty());
}

TEST_F(InnerLock, GoesOnWhereTheFileCanNotBeLocked)
{
    p().fail_kind("lockf");
    p().fault_errno = 37;  // no locks available
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
    EXPECT_EQ(p().calls_of("usleep").size(), 0u);
}

TEST_F(InnerLock, RecordFileDoesNotFollowALinkAndIsPrivate)
{
    std::filesystem::remove(record_file);
    write_file("/etc/kesta_sys/elsewhere", "x");
    std::filesystem::create_symlink("/etc/kesta_sys/elsewhere", record_file);
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
    kestal_reset_mycnt_innerlock_main(0, 0);
    std::filesystem::remove(record_file);
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
    EXPECT_EQ(mode_of(record_file), 0600u);
}

TEST_F(InnerLock, EveryFaultLeavesTheMutexFreeAndHasItsOwnCode)
{
    sweep_faults([&] { reset(); }, [] { return kestal_cntl_innerlock(0); },
                 [&](int result, bool met) {
                     if (!met) {
                         EXPECT_EQ(result, 0);
                     } else {
                         EXPECT_TRUE(result == 0 || result == -1 || result == -172) << result;
                     }
                     reset();
                     EXPECT_EQ(kestal_cntl_innerlock(0), 0) << "the mutex is free";
                 });
}
