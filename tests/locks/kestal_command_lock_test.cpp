#include <string.h>

#include <array>

#include "library_test.h"

using namespace test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

KESTA_COMMAND_LOCKINFO slot(int controller)
{
    KESTA_COMMAND_LOCKINFO record;
    memcpy(&record, platform().nv.data() + nv_lock(controller), sizeof(record));
    return record;
}

void set_slot(int controller, int status, std::int64_t sign, std::int64_t timeout = 0)
{
    const KESTA_COMMAND_LOCKINFO record{status, 0, sign, timeout};
    memcpy(platform().nv.data() + nv_lock(controller), &record, sizeof(record));
}

bool is_free(int controller)
{
    const KESTA_COMMAND_LOCKINFO record = slot(controller);
    return record.status == 0 && record.filler == 0 && record.sign == 0 && record.timeout == 0;
}

constexpr std::int64_t now = 1'000'000;  // the platform's wall clock at start
const std::string tag = "[kestal_global_command_lock] ";

}  // namespace

class CommandLock : public LibraryTest {
protected:
    ~CommandLock() override { EXPECT_TRUE(inner_lock_is_free()); }

    int lock(int controller, int type, int relock = 0, char *group = nullptr)
    {
        return kestal_global_command_lock_func(controller, type, identifier, group, relock, &met);
    }
    // The moment between the write of the own slot and its re-reading.
    void before_re_read(const std::function<void()> &what)
    {
        p().before_call = [what, writes = 0](const std::string &call) mutable {
            writes += call.rfind("nv_write 2", 0) == 0 && call.size() == strlen("nv_write 200 24");
            if (writes == 1 && call == "nv_read 200 96") {
                ++writes;
                what();
            }
        };
    }

    char identifier[64] = "";
    int met = 77;
};

// ------------------------------------------------------------------------------------ taking

TEST_F(CommandLock, EachTypeHasItsStatus)
{
    const std::pair<int, int> types[] = {{1, 1}, {2, 3}, {3, 4}};
    for (const auto &[type, status] : types) {
        p().nv.clear();
        EXPECT_EQ(lock(2, type), 0);
        EXPECT_EQ(slot(2).status, status);
        EXPECT_EQ(slot(2).filler, 0);
        EXPECT_EQ(slot(2).sign, now);
        EXPECT_EQ(slot(2).timeout, now + 600);
        EXPECT_STREQ(identifier, "1000000");
        EXPECT_EQ(met, 77) << "untouched";
        EXPECT_TRUE(is_free(0) && is_free(1) && is_free(3));
    }
    EXPECT_EQ(p().traces.front().text, tag + "Global command lock Start. cnt_num=2 lock_type=1");
    EXPECT_EQ(p().traces.back(), (Trace{5, tag + "Global command lock End.", "../common/kestal_command_lock.cpp"}));
}

TEST_F(CommandLock, ReadsWritesAndReadsAgainInSectionsOfTheirOwn)
{
    EXPECT_EQ(lock(1, 1), 0);
    const std::vector<std::string> section_before{"nv_read 600 64", "nv_write 600 16", "nv_read 600 64"};
    std::vector<std::string> expected;
    for (const std::string access : {"nv_read 200 96", "nv_write 224 24", "nv_read 200 96"}) {
        expected.insert(expected.end(), section_before.begin(), section_before.end());
        expected.push_back(access);
        expected.push_back("nv_write 600 16");
    }
    EXPECT_EQ(p().calls_of("nv_"), expected);
}

TEST_F(CommandLock, GroupNameIsStoredAndMayBeFull)
{
    char group[] = "network";
    EXPECT_EQ(lock(0, 1, 0, group), 0);
    EXPECT_EQ(p().text_at(nv_group, 16), "network");
    p().nv.clear();
    char full[16];
    memset(full, 'g', sizeof(full));  // no terminator
    EXPECT_EQ(lock(0, 1, 0, full), 0);
    EXPECT_EQ(p().text_at(nv_group, 16), std::string(16, 'g'));
}

TEST_F(CommandLock, AnyStatusRefusesEveryTypeAndTheOwnSlotCounts)
{
    for (const int holder : {0, 1, 3}) {
        for (const int status : {1, 2, 3, 4, -1, 99}) {
            for (const int type : {1, 2, 3}) {
                for (const int relock : {0, 1}) {
                    p().nv.clear();
                    p().traces.clear();
                    set_slot(holder, status, 5, 6);
                    EXPECT_EQ(lock(1, type, relock), -101);
                    EXPECT_EQ(met, holder);
                    EXPECT_THAT(p().texts(1),
                                ElementsAre(tag + "Lock Error. Already locked Command lock. CNT=" +
                                            std::to_string(holder) + " lockstatus=" + std::to_string(status)));
                    EXPECT_EQ(slot(holder).sign, 5) << "as it was";
                    EXPECT_TRUE(holder == 1 || is_free(1));
                }
            }
        }
    }
}

TEST_F(CommandLock, SuspendedLockRefusesOnlyNewLocksOfTypeOne)
{
    set_slot(3, 0, 42, 43);
    EXPECT_EQ(lock(0, 1), -101);
    EXPECT_EQ(met, 3);
    EXPECT_THAT(p().texts(1), ElementsAre(tag + "Sign Error. Already locked Command lock. CNT=3 sign=42"));
    for (const int type : {2, 3}) {
        EXPECT_EQ(lock(0, type), 0);
        EXPECT_EQ(kestal_global_command_unlock_func(0, nullptr, 0), 0);
    }
    EXPECT_EQ(slot(3).sign, 42);
}

TEST_F(CommandLock, FirstSlotInTheWayIsNamed)
{
    set_slot(1, 0, 42);
    set_slot(2, 4, 43);
    EXPECT_EQ(lock(0, 1), -101);
    EXPECT_EQ(met, 1) << "by its sign";
    EXPECT_EQ(lock(0, 2), -101);
    EXPECT_EQ(met, 2) << "by its status";
    EXPECT_EQ(kestal_global_command_lock_func(0, 2, identifier, nullptr, 0, nullptr), -101);
}

TEST_F(CommandLock, ArgumentsAreChecked)
{
    EXPECT_EQ(kestal_global_command_lock_func(0, 1, nullptr, nullptr, 0, &met), -931);
    EXPECT_EQ(p().traces.back(),
              (Trace{1, tag + "Argument Error.(lock_identifier=NULL)", "../common/kestal_command_lock.cpp"}));
    for (const int controller : {-1, 4}) {
        EXPECT_EQ(lock(controller, 1), -1);
        EXPECT_EQ(p().traces.back().text, tag + "Get Block ID(ID TYPE=LOCK) Error. result=-931");
    }
    EXPECT_THAT(p().calls, IsEmpty());
    for (const int type : {0, 4, -1}) {
        EXPECT_EQ(lock(0, type), -931);
        EXPECT_EQ(p().traces.back().text, tag + "Argument Error. lock_type=" + std::to_string(type) + ".");
        EXPECT_TRUE(is_free(0));
    }
}

// ------------------------------------------------------------------------------------ collisions

TEST_F(CommandLock, OneThatWroteAtTheSameTimeMakesTheCallerWithdraw)
{
    struct Case {
        int type, other_status;
        const char *text;  // null: no collision
    };
    const Case cases[] = {
        {1, 1, "After locked"}, {1, 2, "Other locked"}, {1, 3, "Other locked"}, {1, 4, "Other locked"},
        {2, 1, "After locked"}, {2, 2, "Other locked"}, {2, 3, nullptr},        {2, 4, "Other locked"},
        {3, 1, "After locked"}, {3, 2, "Other locked"}, {3, 3, "Other locked"}, {3, 4, "Other locked"},
    };
    for (const Case &c : cases) {
        for (const int other : {0, 3}) {
            p().nv.clear();
            p().traces.clear();
            met = 77;
            before_re_read([&] { set_slot(other, c.other_status, 9, 10); });
            EXPECT_EQ(lock(1, c.type), c.text ? -101 : 0) << c.type << " " << c.other_status;
            p().before_call = nullptr;
            EXPECT_EQ(slot(other).sign, 9) << "the other one's slot is its own";
            if (!c.text) {
                EXPECT_EQ(slot(1).status, 3);
                EXPECT_EQ(met, 77);
                continue;
            }
            EXPECT_TRUE(is_free(1)) << "withdrawn";
            EXPECT_EQ(met, other);
            EXPECT_THAT(p().texts(1),
                        ElementsAre(tag + "Lock Error. " + c.text + " Command lock. CNT=" + std::to_string(other) +
                                    " lockstatus=" + std::to_string(c.other_status)));
        }
    }
}

TEST_F(CommandLock, SuspendedLockIsNoCollision)
{
    before_re_read([] { set_slot(2, 0, 9, 10); });
    EXPECT_EQ(lock(1, 1), 0);
}

TEST_F(CommandLock, WithdrawalThatFailsIsToldAndIgnored)
{
    before_re_read([] {
        set_slot(2, 1, 9);
        p().before_call = nullptr;
        p().fail_kind("nv_write", 2, 5);  // release of the section, claim of the next, then this
    });
    EXPECT_EQ(lock(1, 1), -101);
    EXPECT_TRUE(p().traced(1, tag + "Write Lock info Error. result=-1"));
    EXPECT_EQ(slot(1).status, 1) << "left behind";
}

// ------------------------------------------------------------------------------------ failures

TEST_F(CommandLock, FailuresOfTheImageAreTold)
{
    p().fail_kind("nv_read", 2, 5);
    EXPECT_EQ(lock(0, 1), -1);
    EXPECT_TRUE(p().traced(1, tag + "Read Lock info Error. result=-1"));
    EXPECT_STREQ(identifier, "");

    p().fail_kind("nv_write", 3, 5);
    EXPECT_EQ(lock(0, 1), -1);
    EXPECT_TRUE(p().traced(1, tag + "Write Lock info Error. result=-1"));
    EXPECT_TRUE(is_free(0));

    p().traces.clear();
    p().fail_kind("nv_read", 7, 5);
    EXPECT_EQ(lock(0, 1), -1);
    EXPECT_TRUE(p().traced(1, tag + "Read Lock info Error. result=-1"));
    EXPECT_EQ(slot(0).status, 1) << "the lock stays written";
}

TEST_F(CommandLock, GroupNameThatCanNotBeStoredLeavesTheLock)
{
    char group[] = "network";
    p().fail_kind("nv_write", 7, 5);  // three sections of two or three writes before
    EXPECT_EQ(lock(0, 1, 0, group), -1);
    EXPECT_TRUE(p().traced(1, tag + "Set Request Group name(network) ERROR result=-1"));
    EXPECT_EQ(slot(0).status, 1);
}

TEST_F(CommandLock, EveryFaultLeavesNoInnerLockUnlessItsReleaseFailed)
{
    sweep_faults([] { reset(); }, [this] { return lock(0, 1); },
                 [](int result, bool) {
                     EXPECT_TRUE(result == 0 || result == -1);
                     if (result == 0) {
                         EXPECT_EQ(slot(0).status, 1);
                     }
                     p().nv.clear();
                 });
}

// ------------------------------------------------------------------------------------ slots

TEST_F(CommandLock, SlotsAreReadAndWrittenInOneSection)
{
    set_slot(1, 1, 11, 12);
    KESTA_COMMAND_LOCKINFO all[4];
    EXPECT_EQ(kestal_read_cmd_lockinfo(41, all, sizeof(all), 0), 0);
    EXPECT_EQ(all[1].sign, 11);
    EXPECT_EQ(p().traces.front().text,
              "[kestal_read_cmd_lockinfo] Command lock information read "
              "Start. block_id=41 size=96");
    EXPECT_EQ(p().traces.back(), (Trace{5, "[kestal_read_cmd_lockinfo] Command lock information read End. rtn=0",
                                        "../common/kestal_cmd_lockinfo.cpp"}));
    KESTA_COMMAND_LOCKINFO one{2, 0, 21, 22};
    p().traces.clear();
    EXPECT_EQ(kestal_write_cmd_lockinfo(44, &one, sizeof(one), 3), 0);
    EXPECT_EQ(slot(3).timeout, 22);
    EXPECT_EQ(p().traces.front().text,
              "[kestal_write_cmd_lockinfo] Command lock information write "
              "Start. block_id=44 size=24");
    EXPECT_EQ(p().traces.back().text, "[kestal_write_cmd_lockinfo] Command lock information write End. ret=0");
}

TEST_F(CommandLock, SlotAccessChecksItsArguments)
{
    KESTA_COMMAND_LOCKINFO one{};
    for (const int block : {40, 45, 0, -1}) {
        EXPECT_EQ(kestal_read_cmd_lockinfo(block, nullptr, 24, 0), -931) << "the block is first";
        EXPECT_EQ(p().traces.back().text,
                  "[kestal_read_cmd_lockinfo] Argument Error. block_id=" + std::to_string(block));
        EXPECT_EQ(kestal_write_cmd_lockinfo(block, &one, 24, 0), -931);
        EXPECT_EQ(p().traces.back().text,
                  "[kestal_write_cmd_lockinfo] Argument Error. block_id=" + std::to_string(block));
    }
    EXPECT_EQ(kestal_read_cmd_lockinfo(41, nullptr, 24, 0), -931);
    EXPECT_EQ(p().traces.back().text, "[kestal_read_cmd_lockinfo] Argument Error.(lockinfo=NULL)");
    EXPECT_EQ(kestal_write_cmd_lockinfo(41, nullptr, 24, 0), -931);
    EXPECT_EQ(p().traces.back().text, "[kestal_write_cmd_lockinfo] Argument Error.(lockinfo=NULL)");
    EXPECT_THAT(p().calls, IsEmpty());
}

TEST_F(CommandLock, SlotAccessTellsItsFailures)
{
    KESTA_COMMAND_LOCKINFO one{};
    EXPECT_EQ(kestal_read_cmd_lockinfo(41, &one, 24, 4), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_read_cmd_lockinfo] InnerLock Lock Failed(result=-931)."));
    EXPECT_EQ(kestal_write_cmd_lockinfo(41, &one, 24, -1), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_write_cmd_lockinfo] InnerLock Lock Failed. result=-931"));
    p().fail_kind("nv_read", 2, 5);
    EXPECT_EQ(kestal_read_cmd_lockinfo(42, &one, 24, 0), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_read_cmd_lockinfo] Read non_volatile memory Error. block_id=42"));
    EXPECT_TRUE(inner_lock_is_free()) << "always released";
    p().fail_kind("nv_write", 1, 5);
    EXPECT_EQ(kestal_write_cmd_lockinfo(42, &one, 24, 0), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_write_cmd_lockinfo] Write non_volatile memory Error. block_id=42"));
    EXPECT_TRUE(inner_lock_is_free());
    p().fail_kind("nv_write", 1, 5);
    EXPECT_EQ(kestal_read_cmd_lockinfo(42, &one, 24, 0), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_read_cmd_lockinfo] InnerLock Unlock Failed.(result=-172)"));
    p().nv.clear();
    p().fail_kind("nv_write", 2, 5);
    EXPECT_EQ(kestal_write_cmd_lockinfo(42, &one, 24, 0), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_write_cmd_lockinfo] InnerLock Unlock Failed. result=-172"));
    p().nv.clear();
}

// ------------------------------------------------------------------------------------ releasing

class CommandUnlock : public CommandLock {
protected:
    const std::string tag = "[kestal_global_command_unlock] ";
    int unlock(int controller, const char *shown, int keep = 0)
    {
        return kestal_global_command_unlock_func(controller, shown, keep);
    }
};

TEST_F(CommandUnlock, ReleaseClearsSlotAndGroupName)
{
    char group[] = "network";
    EXPECT_EQ(lock(2, 3, 0, group), 0);
    p().traces.clear();
    EXPECT_EQ(unlock(2, identifier), 0);
    EXPECT_TRUE(is_free(2));
    EXPECT_EQ(p().text_at(nv_group, 16), "");
    EXPECT_EQ(p().traces.front(), (Trace{4, tag + "Global command unlock Start. cnt_num=2 lock_identifier=1000000",
                                         "../common/kestal_command_lock.cpp"}));
    EXPECT_TRUE(p().traced(4, tag + "read_cmd_lockinfo end. block_id=43"));
    EXPECT_TRUE(p().traced(4, tag + "write_cmd_lockinfo start. block_id=43"));
    EXPECT_EQ(p().traces.back().text, tag + "Global command unlock End.");
}

TEST_F(CommandUnlock, NullIdentifierReleasesWithoutACheck)
{
    set_slot(1, 1, 123, 124);
    EXPECT_EQ(unlock(1, nullptr), 0);
    EXPECT_TRUE(is_free(1));
    EXPECT_TRUE(p().traced(4, tag + "Global command unlock Start. cnt_num=1 lock_identifier=NULL"));
    EXPECT_EQ(unlock(1, nullptr), 0) << "also of a free slot";
}

TEST_F(CommandUnlock, AnotherIdentifierChangesNothing)
{
    set_slot(1, 1, 124, 5);
    p().set_text(nv_group, "network", 16);
    EXPECT_EQ(unlock(1, "123"), -203);
    EXPECT_TRUE(p().traced(2, tag + "Lock_identifier unmatch. (volatile:124, request:123)"));
    for (const char *bad : {"12a", "", "-124", " 124"}) {
        EXPECT_EQ(unlock(1, bad), -1) << bad;
        EXPECT_TRUE(p().traced(1, tag + "isdigit check Error. lock_identifier=" + bad));
    }
    EXPECT_EQ(slot(1).status, 1);
    EXPECT_EQ(slot(1).sign, 124);
    EXPECT_EQ(p().text_at(nv_group, 16), "network");
    EXPECT_EQ(unlock(1, "0124"), 0) << "the value counts";
}

TEST_F(CommandUnlock, LowBitsOfASignAreCompared)
{
    set_slot(1, 1, (std::int64_t{1} << 32) + 7, 5);
    EXPECT_EQ(unlock(1, "8"), -203);
    EXPECT_TRUE(p().traced(2, tag + "Lock_identifier unmatch. (volatile:7, request:8)"));
    EXPECT_EQ(unlock(1, "7"), 0);
}

TEST_F(CommandUnlock, KeepSuspendsAndRelockTakesItAgain)
{
    char group[] = "network";
    EXPECT_EQ(lock(1, 1, 0, group), 0);
    EXPECT_EQ(unlock(1, "not looked at", 1), 0);
    EXPECT_EQ(slot(1).status, 0);
    EXPECT_EQ(slot(1).sign, now);
    EXPECT_EQ(slot(1).timeout, now + 600);
    EXPECT_EQ(p().text_at(nv_group, 16), "") << "the group name goes";

    p().wall_seconds += 100;
    char other[64];
    for (const int controller : {0, 1, 3}) {
        EXPECT_EQ(kestal_global_command_lock_func(controller, 1, other, nullptr, 0, &met), -101);
        EXPECT_EQ(met, 1) << "the sign blocks new locks of everybody";
    }
    EXPECT_EQ(lock(1, 1, 1), 0);
    EXPECT_EQ(slot(1).status, 1);
    EXPECT_EQ(slot(1).sign, now);
    EXPECT_EQ(slot(1).timeout, now + 600) << "the old one";
    EXPECT_STREQ(identifier, "1000000");
    EXPECT_EQ(unlock(1, identifier), 0);
}

TEST_F(CommandUnlock, SuspendedLockIsReleasedByItsIdentifier)
{
    EXPECT_EQ(lock(1, 1), 0);
    EXPECT_EQ(unlock(1, nullptr, 7), 0);
    EXPECT_EQ(unlock(1, "1"), -203);
    EXPECT_EQ(unlock(1, identifier), 0);
    EXPECT_TRUE(is_free(1));
}

TEST_F(CommandUnlock, FailuresAreToldAndWhatIsNotWrittenStays)
{
    EXPECT_EQ(unlock(4, nullptr), -1);
    EXPECT_TRUE(p().traced(1, tag + "Get Block ID(ID TYPE=LOCK) Error. result=-931"));
    set_slot(1, 1, 5, 6);
    p().set_text(nv_group, "network", 16);
    p().fail_kind("nv_read", 2, 5);
    EXPECT_EQ(unlock(1, "5"), -1);
    EXPECT_TRUE(p().traced(1, tag + "Read Lock info Error. result=-1"));
    p().fail_kind("nv_write", 3, 5);
    EXPECT_EQ(unlock(1, "5"), -1);
    EXPECT_TRUE(p().traced(1, tag + "Reset Request Group name() ERROR result=-1"));
    EXPECT_EQ(slot(1).sign, 5) << "not written";
    EXPECT_EQ(p().text_at(nv_group, 16), "network");
    p().fail_kind("nv_write", 6, 5);
    EXPECT_EQ(unlock(1, "5"), -1);
    EXPECT_TRUE(p().traced(1, tag + "Write Lock info Error. result=-1"));
    EXPECT_EQ(slot(1).sign, 5);
}

// ------------------------------------------------------------------------------------ the check

class CommandLockCheck : public CommandLock {
protected:
    int check(int controller = -1) { return kestal_global_command_lock_check(controller, group, &met); }
    void pass_seconds(int seconds) { p().clock_us += std::int64_t{seconds} * 1'000'000; }
    char group[17] = "################";
};

TEST_F(CommandLockCheck, NothingTakenIsZero)
{
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(met, 77);
    EXPECT_EQ(group[0], '#');
    EXPECT_EQ(p().traces.front().text, "[global_command_lock_check] Command lock Timeout chack Start. cnt_num=-1");
    EXPECT_EQ(p().traces.back(), (Trace{5, "[global_command_lock_check] Command lock Timeout chack End.",
                                        "../common/kestal_command_lock.cpp"}));
}

TEST_F(CommandLockCheck, FirstLiveLockIsNamedWithItsGroup)
{
    set_slot(1, 0, 41, 600);  // suspended
    set_slot(2, 3, 42, 600);
    p().set_text(nv_group, "network", 16);
    EXPECT_EQ(check(), 41);
    EXPECT_EQ(met, 1);
    EXPECT_STREQ(group, "network");
    EXPECT_EQ(check(2), 42);
    EXPECT_EQ(met, 2);
    EXPECT_EQ(check(3), 0);
    EXPECT_EQ(kestal_global_command_lock_check(2, nullptr, nullptr), 42);
    set_slot(2, 3, (std::int64_t{1} << 32) + 7, 600);
    EXPECT_EQ(check(2), 7) << "the low bits";
}

TEST_F(CommandLockCheck, ControllerOutsideIsRefused)
{
    for (const int controller : {-2, 4, 100}) {
        EXPECT_EQ(check(controller), -1);
        EXPECT_EQ(p().traces.back().text,
                  "[global_command_lock_check] Parameter Error. cnt_num=" + std::to_string(controller));
    }
    EXPECT_THAT(p().calls, IsEmpty());
}

TEST_F(CommandLockCheck, LockSeenUnchangedForMoreThanTenMinutesIsCleared)
{
    set_slot(1, 1, 42, 1600);
    p().set_text(nv_group, "network", 16);
    EXPECT_EQ(check(), 42) << "seen for the first time";
    pass_seconds(600);
    EXPECT_EQ(check(), 42) << "600 seconds are not more than 600";
    pass_seconds(1);
    p().traces.clear();
    EXPECT_EQ(check(), 0);
    EXPECT_TRUE(is_free(1));
    EXPECT_EQ(p().text_at(nv_group, 16), "");
    EXPECT_TRUE(p().traced(4,
                           "[kestal_global_command_lock_check] Command lock Timeout OCCUR. "
                           "cnt_num=1 timeout=1600"));
    EXPECT_TRUE(p().traced(3,
                           "[compare_cntlock_timeout] command_lock timeout (cntno:1) "
                           "(curclock:1101, clock:500)"));
    EXPECT_TRUE(p().traced(4,
                           "[kestal_global_command_unlock] Global command unlock Start. cnt_num=1 "
                           "lock_identifier=NULL"));
}

TEST_F(CommandLockCheck, EachTypeAndASuspendedOneTimesOut)
{
    for (const int status : {0, 1, 2, 3, 4}) {
        reset();
        set_slot(3, status, 42, 1600 + status);
        EXPECT_EQ(check(), 42);
        pass_seconds(601);
        EXPECT_EQ(check(), 0) << status;
        EXPECT_TRUE(is_free(3));
    }
}

TEST_F(CommandLockCheck, ChangedTimeoutBeginsAnew)
{
    set_slot(1, 1, 42, 1600);
    EXPECT_EQ(check(), 42);
    pass_seconds(599);
    set_slot(1, 2, 42, 1700);  // renewed
    EXPECT_EQ(check(), 42);
    pass_seconds(600);
    EXPECT_EQ(check(), 42);
    pass_seconds(1);
    EXPECT_EQ(check(), 0);
}

TEST_F(CommandLockCheck, AnotherOneIsFoundBehindAClearedOne)
{
    set_slot(0, 1, 41, 1600);
    EXPECT_EQ(check(0), 41);
    set_slot(2, 3, 42, 1700);
    pass_seconds(601);
    EXPECT_EQ(check(), 42);
    EXPECT_EQ(met, 2);
    EXPECT_TRUE(is_free(0));
}

TEST_F(CommandLockCheck, ReleaseForgetsWhatWasSeen)
{
    set_slot(1, 1, 42, 1600);
    EXPECT_EQ(check(), 42);
    EXPECT_EQ(kestal_global_command_unlock_func(1, "42", 0), 0);
    pass_seconds(601);
    set_slot(1, 1, 43, 1600);  // another lock with the same value
    EXPECT_EQ(check(), 43);
}

TEST_F(CommandLockCheck, FailuresAreTold)
{
    p().fail_kind("nv_read", 0, 5);
    EXPECT_EQ(check(), -1);
    EXPECT_TRUE(p().traced(1, "[global_command_lock_check] Read Lock info of CNT(-1) Error. result=-1"));
    set_slot(1, 1, 42, 1600);
    EXPECT_EQ(check(), 42);
    pass_seconds(601);
    p().fail_kind("nv_write", 5, 5);
    EXPECT_EQ(check(), -1);
    EXPECT_TRUE(p().traced(1, "[global_command_lock_check] Unlock Error. CNT(1) result=-1"));
    EXPECT_EQ(slot(1).sign, 42);
}

TEST_F(CommandLockCheck, ObservationsAreKeptForEachController)
{
    EXPECT_EQ(kestal_compare_cntlock_timeout(0, 5), 0);
    EXPECT_THAT(p().texts(5), ElementsAre("[compare_cntlock_timeout] value = 5 save value = 0"));
    EXPECT_TRUE(p().traced(4, "[compare_cntlock_timeout] command_lock(cnt0) set value = 5 clock = 500"));
    pass_seconds(601);
    EXPECT_EQ(kestal_compare_cntlock_timeout(1, 5), 0);
    EXPECT_EQ(kestal_compare_cntlock_timeout(0, 5), 1);
    EXPECT_TRUE(p().traced(5, "[compare_cntlock_timeout] same command_lock value = 5"));
    EXPECT_EQ(kestal_reset_cntlock_timeout(0), 0);
    EXPECT_TRUE(p().traced(5, "[compare_lockinfo_timeout] inner_lock(cnt0) reset(5, 500)"));
    EXPECT_EQ(kestal_compare_cntlock_timeout(0, 5), 0);
    pass_seconds(601);
    EXPECT_EQ(kestal_compare_cntlock_timeout(1, 5), 1);
    kestal_allreset_lockinfo();
    EXPECT_EQ(kestal_compare_cntlock_timeout(0, 5), 0);
    EXPECT_EQ(kestal_compare_cntlock_timeout(1, 5), 0);
}

TEST_F(CommandLockCheck, ValueZeroIsKeptWithClockZero)
{
    EXPECT_EQ(kestal_compare_cntlock_timeout(0, 5), 0);
    EXPECT_EQ(kestal_compare_cntlock_timeout(0, 0), 0);
    EXPECT_TRUE(p().traced(4, "[compare_cntlock_timeout] command_lock(cnt0) set value = 0 clock = 0"));
    p().clock_us = 601'000'000;
    EXPECT_EQ(kestal_compare_cntlock_timeout(0, 0), 1) << "since clock 0";
}

TEST_F(CommandLockCheck, ObservationsOfNobodyAreRefused)
{
    EXPECT_EQ(kestal_compare_cntlock_timeout(4, 5), -931);
    EXPECT_EQ(kestal_compare_cntlock_timeout(-1, 5), -931);
    EXPECT_EQ(kestal_reset_cntlock_timeout(4), 0);
    EXPECT_EQ(kestal_reset_cntlock_timeout(-1), 0);
}

// ------------------------------------------------------------------------------------ backups

class BackupLock : public CommandLock {
protected:
    const std::string tag = "[kestal_backup_lock] ";
};

TEST_F(BackupLock, TypeOneLockBecomesARunningBackupAndIsRenewed)
{
    EXPECT_EQ(lock(0, 1), 0);
    p().wall_seconds += 50;
    p().traces.clear();
    EXPECT_EQ(kestal_backup_lock(identifier), 0);
    EXPECT_EQ(slot(0).status, 2);
    EXPECT_EQ(slot(0).filler, 0);
    EXPECT_EQ(slot(0).sign, now) << "kept";
    EXPECT_EQ(slot(0).timeout, now + 50 + 600);
    EXPECT_EQ(p().traces.front().text, tag + "Backup command lock Start. cnt_num=0 lock_identifier=1000000");
    EXPECT_EQ(p().traces.back(), (Trace{5, tag + "Backup command lock End.", "../common/kestal_command_lock.cpp"}));
    EXPECT_EQ(kestal_backup_lock(identifier), -1) << "not again";
    EXPECT_EQ(kestal_global_command_unlock_func(0, identifier, 0), 0);
}

TEST_F(BackupLock, OnlyTheOwnTypeOneLockOfThatIdentifier)
{
    EXPECT_EQ(kestal_backup_lock(nullptr), -931);
    EXPECT_EQ(p().traces.back().text, tag + "Argument Error. lock_identifier=NULL");
    for (const char *bad : {"", "1a", "-1"}) {
        EXPECT_EQ(kestal_backup_lock(bad), -1);
        EXPECT_TRUE(p().traced(1, tag + "isdigit check Error. lock_identifier=" + bad));
    }
    set_slot(0, 1, 42, 5);
    EXPECT_EQ(kestal_backup_lock("43"), -203);
    EXPECT_EQ(p().traces.back().text, tag + "Lock_identifier unmatch. lock_identifier=43");
    for (const int status : {0, 2, 3, 4}) {
        set_slot(0, status, 42, 5);
        EXPECT_EQ(kestal_backup_lock("42"), -1);
        EXPECT_EQ(p().traces.back().text, tag + "Lock Status Error");
    }
    set_slot(0, 1, 42, 5);
    set_slot(3, 3, 44, 5);
    EXPECT_EQ(kestal_backup_lock("42"), -1);
    EXPECT_EQ(p().traces.back().text, tag + "Lock Error. LOCK CNT(3) STS(3) Command EXE");
    set_slot(3, 0, 44, 5);
    EXPECT_EQ(kestal_backup_lock("42"), 0) << "a suspended one is in nobody's way";
}

TEST_F(BackupLock, FailuresAreTold)
{
    set_slot(0, 1, 42, 5);
    p().fail_kind("nv_read", 2, 5);
    EXPECT_EQ(kestal_backup_lock("42"), -1);
    EXPECT_TRUE(p().traced(1, tag + "Read Lock info Error. result=-1"));
    p().fail_kind("nv_write", 3, 5);
    EXPECT_EQ(kestal_backup_lock("42"), -1);
    EXPECT_TRUE(p().traced(1, tag + "Write Lock info Error. result=-1"));
    EXPECT_EQ(slot(0).status, 1);
    reset(-1);
    EXPECT_EQ(kestal_backup_lock("42"), -1);
    EXPECT_TRUE(p().traced(1, tag + "Get Block ID(ID TYPE=LOCK) Error. result=-931"));
}
