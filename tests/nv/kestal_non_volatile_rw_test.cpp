#include "access_mode.h"
#include "library_test.h"
#include "nv_transfer.h"

using namespace test;
using testing::ElementsAre;

class MemoryAccess : public LibraryTest {};

TEST_F(MemoryAccess, WriteAndReadMoveTheBytesInOneTransferEach)
{
    char name[32] = "kesta_backup1";
    EXPECT_EQ(kestal_non_volatile_rw_memory(32, 1, name, 32), 0);
    EXPECT_EQ(p().text_at(104, 32), "kesta_backup1");
    char back[32] = {};
    EXPECT_EQ(kestal_non_volatile_rw_memory(32, 2, back, 32), 0);
    EXPECT_STREQ(back, "kesta_backup1");
    EXPECT_THAT(p().calls, ElementsAre("nv_write 104 32", "nv_read 104 32"));
    EXPECT_THAT(p().texts(5), ElementsAre("[non_volatile_rw_memory] NV(memory) R/W START block_id=32 rw_flag=1 "
                                          "d_size=32",
                                          "[non_volatile_rw_memory] END block_id=32 rw_flag=1",
                                          "[non_volatile_rw_memory] NV(memory) R/W START block_id=32 rw_flag=2 "
                                          "d_size=32",
                                          "[non_volatile_rw_memory] END block_id=32 rw_flag=2"));
}

TEST_F(MemoryAccess, TransferMayRunPastItsField)
{
    char slots[64];
    EXPECT_EQ(kestal_non_volatile_rw_memory(101, 2, slots, 64), 0);
    EXPECT_THAT(p().calls, ElementsAre("nv_read 600 64"));
}

TEST_F(MemoryAccess, ArgumentsAreCheckedBeforeAnyLookup)
{
    char data[4];
    EXPECT_EQ(kestal_non_volatile_rw_memory(999, 1, nullptr, 0), -931);
    EXPECT_EQ(kestal_non_volatile_rw_memory(999, 1, data, 0), -931);
    EXPECT_EQ(kestal_non_volatile_rw_memory(999, 0, data, 4), -931);
    EXPECT_EQ(kestal_non_volatile_rw_memory(999, 3, data, 4), -931);
    EXPECT_THAT(p().texts(1), ElementsAre("[non_volatile_rw_memory] Data area pointer is INVALID",
                                          "[non_volatile_rw_memory] Data Size is INVALID(Size=0)",
                                          "[non_volatile_rw_memory] R/W flag is INVALID",
                                          "[non_volatile_rw_memory] R/W flag is INVALID"));
    EXPECT_TRUE(p().calls.empty());
}

TEST_F(MemoryAccess, UnknownBlockSucceedsWithoutATransfer)
{
    int data = 42;
    for (const int block : {55, 0, 999}) {
        EXPECT_EQ(kestal_non_volatile_rw_memory(block, 2, &data, 4), 0);
        EXPECT_TRUE(p().traced(5, "[non_volatile_rw_memory] Block ID is INVALID block_id=" + std::to_string(block)));
    }
    EXPECT_EQ(data, 42);
    EXPECT_TRUE(p().calls.empty());
    EXPECT_TRUE(p().texts(1).empty()) << "not an error";
}

TEST_F(MemoryAccess, FourFailuresThenASuccessTakeFourHundredMilliseconds)
{
    p().fail_kind("nv_write", 0, 4);
    int data = 7;
    const auto before = p().clock_us;
    EXPECT_EQ(kestal_non_volatile_rw_memory(51, 1, &data, 4), 0);
    EXPECT_EQ(p().clock_us - before, 400000);
    EXPECT_EQ(p().int_at(296), 7);
    EXPECT_THAT(p().texts(1),
                ElementsAre("[non_volatile_rw_memory] [0/5] NV(memory) Write ERROR block_id=51 result=-5",
                            "[non_volatile_rw_memory] [1/5] NV(memory) Write ERROR block_id=51 result=-5",
                            "[non_volatile_rw_memory] [2/5] NV(memory) Write ERROR block_id=51 result=-5",
                            "[non_volatile_rw_memory] [3/5] NV(memory) Write ERROR block_id=51 result=-5"));
}

TEST_F(MemoryAccess, FiveFailuresTakeHalfASecondAndFail)
{
    p().fail_kind("nv_read");
    int data = 42;
    const auto before = p().clock_us;
    EXPECT_EQ(kestal_non_volatile_rw_memory(51, 2, &data, 4), -1);
    EXPECT_EQ(p().clock_us - before, 500000) << "it sleeps after the last failure too";
    EXPECT_EQ(data, 42);
    EXPECT_EQ(p().count("NV(memory) Read ERROR block_id=51 result=-5"), 5);
    EXPECT_EQ(p().texts(1).back(), "[non_volatile_rw_memory] NV(memory) ACCESS ERROR block_id=51");
}

TEST_F(MemoryAccess, CancellationIsOffAndTheMutexHeldDuringATransferAndRestoredAfter)
{
    int state_in_transfer = -1;
    bool mutex_was_free = true;
    p().before_call = [&](const std::string &call) {
        if (call.rfind("nv_", 0) == 0) {
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state_in_transfer);
            mutex_was_free = pthread_mutex_trylock(&nvrw_mutex) == 0;
        }
    };
    int before;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    int data = 0;
    kestal_non_volatile_rw_memory(51, 2, &data, 4);
    int after;
    pthread_setcancelstate(before, &after);
    EXPECT_EQ(state_in_transfer, PTHREAD_CANCEL_DISABLE);
    EXPECT_FALSE(mutex_was_free);
    EXPECT_EQ(after, PTHREAD_CANCEL_DISABLE) << "put back as it was, not forced on";

    kestal_non_volatile_rw_memory(51, 2, &data, 4);
    pthread_setcancelstate(before, &after);
    EXPECT_EQ(after, PTHREAD_CANCEL_ENABLE);
}

class SysbackAccess : public LibraryTest {};

TEST_F(SysbackAccess, FlagsAreTheOppositeOfBlockAccess)
{
    int value = 9;
    EXPECT_EQ(kestal_non_volatile_rw_sysback(51, 2, &value, 4), 0);
    EXPECT_EQ(p().sysback.at("kesta_verid").bytes, std::string("\x09\0\0\0", 4));
    value = 0;
    EXPECT_EQ(kestal_non_volatile_rw_sysback(51, 1, &value, 4), 0);
    EXPECT_EQ(value, 9);
    EXPECT_THAT(p().texts(3), ElementsAre("[non_volatile_rw_sysback] NV(sysback) R/W execute f_name=kesta_verid",
                                          "[non_volatile_rw_sysback] NV(sysback) R/W execute f_name=kesta_verid"));
    EXPECT_TRUE(p().traced(5, "[non_volatile_rw_sysback] NV(sysback) R/W START block_id=51 rw_flag=2 d_size=4"));
    EXPECT_TRUE(p().traced(5, "[non_volatile_rw_sysback] END"));
    EXPECT_TRUE(p().calls_of("nv_").empty());
}

TEST_F(SysbackAccess, BlockWithoutANameGivesNineWithoutALine)
{
    int value = 0;
    EXPECT_EQ(kestal_non_volatile_rw_sysback(21, 1, &value, 4), 9);
    EXPECT_EQ(p().traces.size(), 1u) << "the START line alone";
}

TEST_F(SysbackAccess, StoredItemShorterThanTheBufferFillsOnlyItsLength)
{
    p().sysback["kesta_sysback"] = {"abc"};
    char buffer[8] = {'#', '#', '#', '#', '#', '#', '#', '#'};
    EXPECT_EQ(kestal_non_volatile_rw_sysback(31, 1, buffer, 8), 0);
    EXPECT_EQ(std::string(buffer, 8), "abc#####");
}

TEST_F(SysbackAccess, StoredItemLongerThanTheBufferIsAnError)
{
    p().sysback["kesta_sysback"] = {"abcdefghi"};
    char buffer[8] = {};
    EXPECT_EQ(kestal_non_volatile_rw_sysback(31, 1, buffer, 8), -1);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_TRUE(p().traced(1, "[non_volatile_rw_sysback] NV(sysback) R/W Size ERROR f_name=kesta_sysback"));
}

TEST_F(SysbackAccess, FailuresAreMinusOne)
{
    int value = 0;
    EXPECT_EQ(kestal_non_volatile_rw_sysback(51, 1, &value, 4), -1) << "no such file";
    EXPECT_TRUE(p().traced(1, "[non_volatile_rw_sysback] NV(sysback) R/W ERROR f_name=kesta_verid"));
    p().fail_kind("sb_open");
    EXPECT_EQ(kestal_non_volatile_rw_sysback(51, 2, &value, 4), -1);
    EXPECT_EQ(p().count("NV(sysback) R/W ERROR"), 2);
}

TEST_F(SysbackAccess, OtherFlagIsRefusedBelow)
{
    int value = 0;
    EXPECT_EQ(kestal_non_volatile_rw_sysback(51, 3, &value, 4), -1);
    EXPECT_TRUE(p().traced(1, "[backup_rw] Read Write flag ERROR"));
}

TEST_F(SysbackAccess, NullBufferIsRefused)
{
    p().sysback["kesta_verid"] = {"1234"};
    EXPECT_EQ(kestal_non_volatile_rw_sysback(51, 1, nullptr, 4), -931);
    EXPECT_TRUE(p().calls.empty());
}

TEST_F(SysbackAccess, NullBufferToWriteFailsLikeAnyOtherWrite)
{
    for (const int flag : {2, 3}) {
        p().traces.clear();
        EXPECT_EQ(kestal_non_volatile_rw_sysback(51, flag, nullptr, 4), -1);
        EXPECT_TRUE(p().traced(3, "[non_volatile_rw_sysback] NV(sysback) R/W execute f_name=kesta_verid"));
        EXPECT_EQ(p().texts(1).back(), "[non_volatile_rw_sysback] NV(sysback) R/W ERROR f_name=kesta_verid");
        EXPECT_EQ(p().count("INVALID"), 0);
    }
    EXPECT_TRUE(p().calls.empty());
    int sysback_result = 0;
    EXPECT_EQ(kestal_non_volatile_rw_func(51, 1, nullptr, 4, &sysback_result), -1);
    EXPECT_EQ(sysback_result, -1);
}

TEST_F(SysbackAccess, ShortReadLeavesTheBufferAlone)
{
    p().sysback["kesta_verid"] = {"1234"};
    p().short_by = 1;
    int value = 42;
    EXPECT_EQ(kestal_non_volatile_rw_sysback(51, 1, &value, 4), -1);
    EXPECT_EQ(value, 42);
}

class BlockAccess : public LibraryTest {};

TEST_F(BlockAccess, UnmirroredBlockGoesToMemoryInEveryMode)
{
    char name[16] = "group";
    for (const int mode : {0, 2, 3, -2, 77}) {
        s_rwmode = mode;
        p().set_text(nv_group, "", 16);
        EXPECT_EQ(kestal_non_volatile_rw_func(21, 1, name, 16, nullptr), 0);
        EXPECT_EQ(p().text_at(nv_group, 16), "group");
    }
    EXPECT_TRUE(p().sysback.empty());
    EXPECT_EQ(p().count("[non_volatile_rw] rwmode=2, sysbak_num=12, arg_block_id=21"), 5);
}

TEST_F(BlockAccess, MirroredBlockWithoutAccessTouchesNothing)
{
    for (const int mode : {3, -2, -1, 1, 77}) {
        s_rwmode = mode;
        int sysback = 1234;
        int value = 42;
        EXPECT_EQ(kestal_non_volatile_rw_func(51, 2, &value, 4, &sysback), 0);
        EXPECT_EQ(kestal_non_volatile_rw_func(51, 1, &value, 4, &sysback), 0);
        EXPECT_EQ(value, 42);
        EXPECT_EQ(sysback, 1234) << "written only when that place was used";
    }
    EXPECT_TRUE(p().calls.empty());
    EXPECT_TRUE(p().traced(5, "[non_volatile_rw] rwmode=3, sysbak_num=12, arg_block_id=51"));
}

TEST_F(BlockAccess, WriteGoesToBothPlacesTheAreaFirst)
{
    int value = 5;
    int sysback = 1234;
    EXPECT_EQ(kestal_non_volatile_rw_func(51, 1, &value, 4, &sysback), 0);
    EXPECT_EQ(sysback, 0);
    EXPECT_EQ(p().int_at(296), 5);
    EXPECT_THAT(p().calls, ElementsAre("sb_open kesta_verid w", "sb_write 4", "sb_close", "nv_write 296 4"));
}

TEST_F(BlockAccess, ReadTakesTheAreaAndNotMemory)
{
    p().sysback["kesta_verid"] = {std::string("\x07\0\0\0", 4)};
    p().set_int(296, 8);
    int value = 0;
    EXPECT_EQ(kestal_non_volatile_rw_func(51, 2, &value, 4, nullptr), 0);
    EXPECT_EQ(value, 7);
    EXPECT_TRUE(p().calls_of("nv_").empty());
}

TEST_F(BlockAccess, FailedReadOfTheAreaFallsBackToMemoryForTheProcess)
{
    p().set_int(296, 8);
    int value = 0;
    int sysback = 1234;
    EXPECT_EQ(kestal_non_volatile_rw_func(51, 2, &value, 4, &sysback), 0);
    EXPECT_EQ(value, 8);
    EXPECT_EQ(sysback, -1);
    EXPECT_EQ(s_rwmode, 2);
    EXPECT_TRUE(p().traced(4, "[non_volatile_rw] SET S_RWMODE=2"));
    EXPECT_TRUE(p().traced(1, "[non_volatile_rw] NV(sysback) R/W ERROR rtn=-1."));
}

TEST_F(BlockAccess, WriteThatTheAreaRefusesFailsOnceAndThenGoesToMemoryOnly)
{
    p().fail_kind("sb_open");
    int value = 5;
    EXPECT_EQ(kestal_non_volatile_rw_func(51, 1, &value, 4, nullptr), -1);
    EXPECT_EQ(p().int_at(296), 5) << "memory took it all the same";
    EXPECT_EQ(s_rwmode, 2);
    EXPECT_EQ(p().texts(1).back(),
              "[non_volatile_rw] NV(memory nor syaback) Write ERROR "
              "rtn_sysback=-1 rtn_memory=0 rwmode=0");
    value = 6;
    p().calls.clear();
    EXPECT_EQ(kestal_non_volatile_rw_func(51, 1, &value, 4, nullptr), 0);
    EXPECT_THAT(p().calls, ElementsAre("nv_write 296 4"));
}

TEST_F(BlockAccess, NeitherPlaceCanBeRead)
{
    p().fail_kind("nv_read");
    int value = 42;
    EXPECT_EQ(kestal_non_volatile_rw_func(51, 2, &value, 4, nullptr), -1);
    EXPECT_EQ(value, 42);
    EXPECT_TRUE(p().traced(1, "[non_volatile_rw] NV(memory) R/W ERROR rtn=-1."));
    EXPECT_EQ(p().texts(1).back(),
              "[non_volatile_rw] NV(memory and sysback) Read ERROR "
              "rtn_sysback=-1 rtn_memory=-1 rwmode=0");
}

TEST_F(BlockAccess, WriteThatMemoryRefusesFailsThoughTheAreaTookIt)
{
    p().fail_kind("nv_write");
    int value = 5;
    EXPECT_EQ(kestal_non_volatile_rw_func(51, 1, &value, 4, nullptr), -1);
    EXPECT_EQ(p().texts(1).back(),
              "[non_volatile_rw] NV(memory nor syaback) Write ERROR "
              "rtn_sysback=0 rtn_memory=-1 rwmode=0");
    EXPECT_EQ(s_rwmode, 0);
}

TEST_F(BlockAccess, MemoryOnlyFailuresNameModeTwo)
{
    s_rwmode = 2;
    p().fail_kind("nv_read");
    p().fail_kind("nv_write");
    int value = 5;
    EXPECT_EQ(kestal_non_volatile_rw_func(51, 2, &value, 4, nullptr), -1);
    EXPECT_EQ(p().texts(1).back(),
              "[non_volatile_rw] NV(memory and sysback) Read ERROR "
              "rtn_sysback=0 rtn_memory=-1 rwmode=2");
    EXPECT_EQ(kestal_non_volatile_rw_func(51, 1, &value, 4, nullptr), -1);
    EXPECT_EQ(p().texts(1).back(),
              "[non_volatile_rw] NV(memory nor syaback) Write ERROR "
              "rtn_sysback=0 rtn_memory=-1 rwmode=2");
}

TEST_F(BlockAccess, AnotherFlagIsSilentlyGood)
{
    p().sysback["kesta_verid"] = {std::string("\x07\0\0\0", 4)};
    int value = 42;
    EXPECT_EQ(kestal_non_volatile_rw_func(51, 3, &value, 4, nullptr), 0);
    EXPECT_EQ(value, 7) << "it reads the area, but doesn't count as a read";
    EXPECT_TRUE(p().traced(1, "[non_volatile_rw] NV(memory) R/W ERROR rtn=-931.")) << "and memory is asked too";
    s_rwmode = 2;
    EXPECT_EQ(kestal_non_volatile_rw_func(51, 3, &value, 4, nullptr), 0);
}

TEST_F(BlockAccess, RebootVersionIsReadFromTheAreaOnly)
{
    p().sysback["kesta_reboot"] = {std::string("\x03\0\0\0", 4)};
    int value = 42;
    EXPECT_EQ(kestal_non_volatile_rw_func(55, 2, &value, 4, nullptr), 0);
    EXPECT_EQ(value, 3);
    s_rwmode = 2;
    value = 42;
    EXPECT_EQ(kestal_non_volatile_rw_func(55, 2, &value, 4, nullptr), 0);
    EXPECT_EQ(value, 42);
}

TEST_F(BlockAccess, EveryFaultIsReportedAndNothingStaysHeld)
{
    int value = 0;
    sweep_faults(
        [&] {
            reset();
            value = 5;
        },
        [&] { return kestal_non_volatile_rw_func(51, 1, &value, 4, nullptr); },
        [&](int result, bool met) {
            const bool area_has_it = p().sysback.contains("kesta_verid");
            if (!met) {
                EXPECT_EQ(result, 0);
            }
            if (result == 0) {
                EXPECT_EQ(p().int_at(296), 5);
                EXPECT_TRUE(area_has_it);
            } else {
                EXPECT_EQ(result, -1);
                EXPECT_FALSE(p().texts(1).empty());
            }
            EXPECT_EQ(pthread_mutex_trylock(&nvrw_mutex), 0);
            pthread_mutex_unlock(&nvrw_mutex);
            EXPECT_EQ(pthread_mutex_trylock(&bootmode_mutex), 0);
            pthread_mutex_unlock(&bootmode_mutex);
        });
}

class AccessMode : public LibraryTest {
protected:
    AccessMode() { boot("normal\n"); }
    void boot(const std::string &word) { p().commands["/usr/sbin/cpinfo -b"] = {word}; }
    int check(int reset)
    {
        mode = 1234;
        return kestal_rw_check_for_boot_mode(&mode, reset);
    }
    int mode = 1234;
};

TEST_F(AccessMode, KnownModeIsReturnedWithoutAQuestion)
{
    s_rwmode = 77;
    EXPECT_EQ(check(0), 0);
    EXPECT_EQ(mode, 77);
    EXPECT_TRUE(p().calls.empty());
    EXPECT_EQ(p().texts(5), std::vector<std::string>{"[rw_check_for_execute_mode] ReturnMode 77."});
}

TEST_F(AccessMode, OnlyResetOneAsksAgain)
{
    EXPECT_EQ(check(2), 0);
    EXPECT_EQ(mode, 0);
    EXPECT_TRUE(p().calls.empty());
}

TEST_F(AccessMode, NormalWithAFilledAreaIsBoth)
{
    p().sysback["kesta_sysback"] = {"kesta_backup0"};
    EXPECT_EQ(check(1), 0);
    EXPECT_EQ(mode, 0);
    EXPECT_EQ(s_rwmode, 0);
    EXPECT_TRUE(p().traced(4, "[rw_check_reset] rwmode reset(rwmode=-2)"));
    EXPECT_TRUE(p().traced(3, "[rw_check_for_execute_mode] BootMode = Normal(0) HDD:OK NV:OK(readsize=13)"));
}

TEST_F(AccessMode, NormalWithAnEmptyFileIsBothAtFirstAndMemoryAfterAReset)
{
    p().sysback["kesta_sysback"] = {""};
    s_rwmode = -1;
    EXPECT_EQ(check(0), 0);
    EXPECT_EQ(mode, 0);
    EXPECT_TRUE(p().traced(3, "[rw_check_for_execute_mode] BootMode = Normal(0) HDD:OK NV:OK(readsize=0)"));
    EXPECT_EQ(check(1), 0);
    EXPECT_EQ(mode, 2);
    EXPECT_TRUE(p().traced(3, "[rw_check_for_execute_mode] BootMode = Normal(0) HDD:NG NV:OK(readsize=0)"));
}

TEST_F(AccessMode, InitConfWithAnEmptyFileIsBothEvenAfterAReset)
{
    boot("initconf\n");
    p().sysback["kesta_sysback"] = {""};
    EXPECT_EQ(check(1), 0);
    EXPECT_EQ(mode, 0);
    EXPECT_TRUE(p().traced(3, "[rw_check_for_execute_mode] BootMode = InitConf(2) HDD:OK NV:OK(readsize=0)"));
}

TEST_F(AccessMode, UnreadableAreaIsMemoryOnly)
{
    for (const std::string word : {"normal", "initconf"}) {
        boot(word);
        p().traces.clear();
        EXPECT_EQ(check(1), 0);
        EXPECT_EQ(mode, 2);
        EXPECT_TRUE(p().traced(1, "[rw_check_for_execute_mode] sbacc_open ERROR rtn=-1."));
        EXPECT_TRUE(p().traced(3, "[rw_check_for_execute_mode] BootMode = " +
                                      std::string(word == "normal" ? "Normal(0)" : "InitConf(2)") + " HDD:NG NV:OK"));
    }
}

TEST_F(AccessMode, FailedReadFreesTheBufferThatWasHandedBack)
{
    p().sysback["kesta_sysback"] = {"kesta_backup0"};
    p().short_by = 1;
    EXPECT_EQ(check(1), 0);
    EXPECT_EQ(mode, 2);
    p().short_by = 0;
    p().close_result = -30;
    EXPECT_EQ(check(1), 0);
    EXPECT_EQ(mode, 2);
    EXPECT_TRUE(p().traced(1, "[rw_check_for_execute_mode] sbacc_open ERROR rtn=-30."));
}

TEST_F(AccessMode, SuspendIsNoAccess)
{
    boot("suspend\n");
    EXPECT_EQ(check(1), 0);
    EXPECT_EQ(mode, 3);
    EXPECT_EQ(s_rwmode, 3);
    EXPECT_TRUE(p().traced(3, "[rw_check_for_execute_mode] BootMode = Suspend(1) HDD:NG NV:NG"));
    EXPECT_TRUE(p().calls_of("sb_").empty());
}

TEST_F(AccessMode, UnknownBootModeIsNoAccessAndAFailure)
{
    boot("Normal\n");
    EXPECT_EQ(check(1), -1);
    EXPECT_EQ(mode, 3);
    EXPECT_EQ(s_rwmode, 3);
    EXPECT_TRUE(p().traced(1, "[rw_check_for_execute_mode] Get Boot Mode ERROR rtn=-241."));
    EXPECT_EQ(p().count("ReturnMode"), 0);
    EXPECT_EQ(pthread_mutex_trylock(&bootmode_mutex), 0);
    pthread_mutex_unlock(&bootmode_mutex);
}

TEST_F(AccessMode, EnvironmentRulesTheDiskOut)
{
    p().sysback["kesta_sysback"] = {"kesta_backup0"};
    setenv("KESTA_NOHDD_STATUS", "1", 1);
    EXPECT_EQ(check(1), 0);
    EXPECT_EQ(mode, 2);
    EXPECT_TRUE(p().calls_of("sb_").empty());
    EXPECT_TRUE(p().traced(3, "[rw_check_for_execute_mode] BootMode = Normal(0) HDD:NG NV:OK"));
    for (const char *other : {"0", "2", "", "x1"}) {
        setenv("KESTA_NOHDD_STATUS", other, 1);
        EXPECT_EQ(check(1), 0);
        EXPECT_EQ(mode, 0) << other;
    }
    setenv("KESTA_NOHDD_STATUS", "1abc", 1);
    EXPECT_EQ(check(1), 0);
    EXPECT_EQ(mode, 2) << "its integer value counts";
}

TEST_F(AccessMode, SetTakesAnyValue)
{
    kestal_rw_set_boot_mode(-99);
    EXPECT_EQ(s_rwmode, -99);
    EXPECT_TRUE(p().traced(4, "[rw_set_boot_mode] rwmode set(rwmode=-99)"));
    kestal_rw_check_reset();
    EXPECT_EQ(s_rwmode, -2);
}

TEST_F(AccessMode, NullPointerIsRefused)
{
    EXPECT_EQ(kestal_rw_check_for_boot_mode(nullptr, 1), -931);
    EXPECT_EQ(s_rwmode, 0);
}
