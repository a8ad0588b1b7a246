#include "library_test.h"

using namespace test;
using testing::ElementsAre;

class BackupRw : public LibraryTest {
protected:
    ~BackupRw() override { kestal_free_debug(data, "../common/x.cpp", 1, 0); }
    int read(const char *name) { return kestal_backup_rw(name, 1, &data, &size); }
    int write(const char *name, std::string bytes)
    {
        void *from = bytes.data();
        unsigned length = static_cast<unsigned>(bytes.size());
        return kestal_backup_rw(name, 2, &from, &length);
    }
    void *data = nullptr;
    unsigned size = 0;
};

TEST_F(BackupRw, ReadHandsBackAWholeFile)
{
    p().sysback["kesta_wwn"] = {"0123456789abcdef"};
    EXPECT_EQ(read("kesta_wwn"), 0);
    EXPECT_EQ(std::string(static_cast<char *>(data), size), "0123456789abcdef");
    EXPECT_THAT(p().calls, ElementsAre("sb_open kesta_wwn r", "sb_size", "alloc 16", "sb_read 16", "sb_close"));
    EXPECT_THAT(p().texts(5), ElementsAre("[backup_rw] START f_name=kesta_wwn, rw_flag=1", "[backup_rw] END ret=0"));
}

TEST_F(BackupRw, EmptyFileIsRead)
{
    p().sysback["kesta_sysback"] = {""};
    size = 99;
    EXPECT_EQ(read("kesta_sysback"), 0);
    EXPECT_EQ(size, 0u);
    EXPECT_NE(data, nullptr);
}

TEST_F(BackupRw, SlotIsOpenedTwiceAndItsSizeRecorded)
{
    EXPECT_EQ(write("kesta_backup0", "archive"), 0);
    EXPECT_THAT(p().calls, ElementsAre("sb_open kesta_backup0 w", "sb_write 7", "sb_close", "sb_open kesta_backup0 w",
                                       "sb_write_size 7", "sb_close"));
    EXPECT_TRUE(p().traced(3, "[backup_rw] WriteSize(kesta_backup0) = 7"));
    EXPECT_EQ(p().sysback.at("kesta_backup0").recorded_size, 7);
}

TEST_F(BackupRw, OtherNamesAreOpenedOnce)
{
    for (const char *name : {"kesta_backup2", "kesta_backup0x", "kesta_backup", "kesta_guid"}) {
        p().calls.clear();
        EXPECT_EQ(write(name, "x"), 0);
        EXPECT_EQ(p().calls_of("sb_open").size(), 1u) << name;
    }
}

TEST_F(BackupRw, ArgumentsAreRefusedWithoutACall)
{
    EXPECT_EQ(kestal_backup_rw(nullptr, 1, &data, &size), -931);
    EXPECT_EQ(kestal_backup_rw("kesta_wwn", 1, &data, nullptr), -931);
    EXPECT_EQ(kestal_backup_rw("kesta_wwn", 1, nullptr, &size), -931);
    EXPECT_EQ(kestal_backup_rw("kesta_wwn", 2, nullptr, &size), -931);
    EXPECT_EQ(kestal_backup_rw("kesta_wwn", 2, &data, &size), -931);
    EXPECT_EQ(kestal_backup_rw("kesta_wwn", 0, &data, &size), -931);
    EXPECT_EQ(kestal_backup_rw("kesta_wwn", 3, &data, &size), -931);
    EXPECT_THAT(p().texts(1),
                ElementsAre("[backup_rw] Argument ERROR(f_name=NULL)", "[backup_rw] Argument ERROR(d_size=NULL)",
                            "[backup_rw] Argument ERROR(data=NULL)", "[backup_rw] Argument ERROR(data=NULL)",
                            "[backup_rw] Argument ERROR(data=NULL)", "[backup_rw] Read Write flag ERROR",
                            "[backup_rw] Read Write flag ERROR"));
    EXPECT_TRUE(p().calls.empty());
}

TEST_F(BackupRw, ReadFailures)
{
    EXPECT_EQ(read("kesta_wwn"), -1);
    EXPECT_TRUE(p().traced(1, "[backup_rw] File Open(R) ERROR f_name=kesta_wwn result=-2 "));
    p().sysback["kesta_wwn"] = {"1234"};
    p().close_flag = 0;
    EXPECT_EQ(read("kesta_wwn"), -1);
    EXPECT_TRUE(p().traced(1, "[backup_rw] Close flag=false. f_name=kesta_wwn"));
    p().close_flag = 1;
    p().read_size_result = -7;
    EXPECT_EQ(read("kesta_wwn"), -1);
    EXPECT_TRUE(p().traced(1, "[backup_rw] File Size ERROR f_name=kesta_wwn result=-7 "));
    EXPECT_TRUE(p().calls_of("alloc").empty()) << "nothing is allocated for a size that isn't one";
    p().read_size_result = 0;
    p().fail_kind("alloc", 0, 1);
    EXPECT_EQ(read("kesta_wwn"), -1);
    EXPECT_TRUE(p().traced(1, "[backup_rw] CALLOC ERROR size=4 errno=12"));
    EXPECT_EQ(data, nullptr);
}

TEST_F(BackupRw, FailedReadLeavesTheBufferToTheCaller)
{
    p().sysback["kesta_wwn"] = {"1234"};
    p().short_by = 1;
    EXPECT_EQ(read("kesta_wwn"), -1);
    EXPECT_NE(data, nullptr);
    EXPECT_TRUE(p().traced(1, "[backup_rw]  Read ERROR f_name=kesta_wwn result=3 "));
}

TEST_F(BackupRw, NegativeResultsOfThePlatformAreFailures)
{
    p().sysback["kesta_wwn"] = {"1234"};
    p().fault_errno = 30;
    p().fail_kind("sb_read");
    EXPECT_EQ(read("kesta_wwn"), -1);
    EXPECT_TRUE(p().traced(1, "[backup_rw]  Read ERROR f_name=kesta_wwn result=-30 "));
    p().fail_kind("sb_write");
    EXPECT_EQ(write("kesta_wwn", "1"), -1);
    EXPECT_TRUE(p().traced(1, "[backup_rw]  File Write ERROR f_name=kesta_wwn result=-30 "));
}

TEST_F(BackupRw, WriteFailures)
{
    p().fail_kind("sb_open", 0, 1);
    EXPECT_EQ(write("kesta_wwn", "1234"), -1);
    EXPECT_TRUE(p().traced(1, "[backup_rw]  File Open(W) ERROR f_name=kesta_wwn result=-5 "));
    p().short_by = 1;
    EXPECT_EQ(write("kesta_wwn", "1234"), -1);
    EXPECT_TRUE(p().traced(1, "[backup_rw]  File Write ERROR f_name=kesta_wwn result=3 "));
    p().short_by = 0;
    p().fail_kind("sb_open", 1, 1);
    p().calls.clear();
    EXPECT_EQ(write("kesta_backup1", "1234"), -1);
    EXPECT_TRUE(p().traced(1, "[backup_rw]  File Open-2(W) ERROR f_name=kesta_backup1 result=-5 "));
    EXPECT_EQ(p().calls_of("sb_close").size(), 1u) << "what was not opened is not closed";
    p().kind_faults.clear();
    p().fail_kind("sb_write_size");
    EXPECT_EQ(write("kesta_backup1", "1234"), -1);
    EXPECT_TRUE(p().traced(1, "[backup_rw]  File WriteSize(W) ERROR f_name=kesta_backup1 result=-5 "));
}

TEST_F(BackupRw, CloseFlagIsOnlyLoggedOnAWrite)
{
    p().close_flag = 0;
    EXPECT_EQ(write("kesta_wwn", "1234"), 0);
    EXPECT_TRUE(p().traced(5, "[backup_rw]  Close flag=false. f_name=kesta_wwn"));
}

TEST_F(BackupRw, FirstCloseOfASlotIsLoggedAndIgnored)
{
    p().fail_kind("sb_close", 0, 1);
    EXPECT_EQ(write("kesta_backup0", "1234"), 0);
    EXPECT_TRUE(p().traced(1, "[backup_rw]  File Close ERROR f_name=kesta_backup0 result=-5 "));
}

TEST_F(BackupRw, ResultOfTheLastCloseIsTheResult)
{
    p().sysback["kesta_wwn"] = {"1234"};
    p().close_result = 17;
    EXPECT_EQ(read("kesta_wwn"), 17);
    EXPECT_NE(data, nullptr) << "the buffer is handed back, and is the caller's";
    EXPECT_EQ(write("kesta_wwn", "5678"), 17);
    EXPECT_TRUE(p().traced(1, "[backup_rw]  File Close ERROR f_name=kesta_wwn result=17 "));
    EXPECT_TRUE(p().traced(5, "[backup_rw] END ret=17"));
}

TEST_F(BackupRw, CloseAfterAFailureIsOnlyLogged)
{
    p().sysback["kesta_wwn"] = {"1234"};
    p().short_by = 1;
    p().close_result = 17;
    EXPECT_EQ(read("kesta_wwn"), -1);
    EXPECT_EQ(p().count("File Close ERROR"), 1);
    EXPECT_TRUE(p().traced(5, "[backup_rw] END ret=-1"));
}

TEST_F(BackupRw, EveryFaultIsReportedAndEveryHandleClosed)
{
    sweep_faults([] { reset(); }, [&] { return write("kesta_backup0", "archive"); },
                 [](int result, bool met) {
                     if (!met) {
                         EXPECT_EQ(result, 0);
                     } else {
                         EXPECT_FALSE(p().texts(1).empty());
                     }
                 });
    sweep_faults(
        [&] {
            reset();
            p().sysback["kesta_backup0"] = {"archive"};
            kestal_free_debug(std::exchange(data, nullptr), "../common/x.cpp", 1, 0);
        },
        [&] { return read("kesta_backup0"); }, [](int result, bool met) { EXPECT_EQ(result == 0, !met); });
}
