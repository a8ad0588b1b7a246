// The two flows into the system backup area, and the copy of a flash archive into the cache.
#include <filesystem>

#include "library_test.h"

using namespace test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string flash = "/opt/kesta_sys/bakup/";
const std::string flash_backup = flash + "backup.tar.Z";
const std::string merge_backup = "/var/run/kesta_sys/tmp/backup.tar.Z";

}  // namespace

class CntBackup2Tmp : public LibraryTest {
protected:
    CntBackup2Tmp()
    {
        write_file(flash_backup, "flash backup");
        write_file(flash + "accept.tar.Z", "flash accept");
        p().run_system = true;
    }
};

TEST_F(CntBackup2Tmp, CopiesOneOfTheTwoFlashArchives)
{
    EXPECT_EQ(kestal_cntbackup2tmp("group", 0), 0);
    EXPECT_EQ(read_file("/tmp/kesta_sys/tmp/backup.tar.Z"), "flash backup");
    EXPECT_THAT(p().traces.front(), (Trace{4,
                                           "[kestal_cntbackup2tmp] Flash(CNT-Backup) ---> Tmp "
                                           "(group_name=group,acceptflg=0)",
                                           "../common/kestal_cntbackup2tmp.cpp"}));
    EXPECT_EQ(kestal_cntbackup2tmp("group", 7), 0);
    EXPECT_EQ(read_file("/tmp/kesta_sys/tmp/backup.tar.Z"), "flash accept");
    EXPECT_THAT(p().system_commands, ElementsAre("cp -p /opt/kesta_sys/bakup/backup.tar.Z "
                                                 "/tmp/kesta_sys/tmp/backup.tar.Z",
                                                 "cp -p /opt/kesta_sys/bakup/accept.tar.Z "
                                                 "/tmp/kesta_sys/tmp/backup.tar.Z"));
    EXPECT_TRUE(p().traced(5, "[kestal_cntbackup2tmp] End.(" + p().system_commands[1] + ") rtn=0"));
}

TEST_F(CntBackup2Tmp, FailuresOfTheCopy)
{
    std::filesystem::remove(flash_backup);
    EXPECT_EQ(kestal_cntbackup2tmp("group", 0), -1);
    EXPECT_THAT(p().texts(1), ElementsAre("[kestal_cntbackup2tmp] Script(Flash->Tmp) Exe Error rtn=1"));
    p().traces.clear();
    p().fail_kind("system");
    EXPECT_EQ(kestal_cntbackup2tmp("group", 0), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_cntbackup2tmp] Script(Flash->Tmp) Exe Error rtn=-1"));
}

TEST_F(CntBackup2Tmp, NullGroupIsRefused)
{
    EXPECT_EQ(kestal_cntbackup2tmp(nullptr, 0), -931);
    EXPECT_THAT(p().texts(1), ElementsAre("[kestal_cntbackup2tmp] Group name Error."));
    EXPECT_THAT(p().system_commands, IsEmpty());
}

class CntBackup2Backup : public LibraryTest {
protected:
    CntBackup2Backup()
    {
        use_slots();
        write_file(flash_backup, "saved environment");
    }
    ~CntBackup2Backup() override { EXPECT_TRUE(inner_lock_is_free()); }
};

TEST_F(CntBackup2Backup, FlashArchiveGoesToTheBackupSlot)
{
    EXPECT_EQ(kestal_cntbackup2backup(), 0);
    EXPECT_EQ(p().sysback.at("kesta_backup0").bytes, "saved environment");
    EXPECT_EQ(p().sysback.at("kesta_backup0").recorded_size, 17);
    EXPECT_FALSE(p().sysback.contains("kesta_backup1"));
    EXPECT_TRUE(p().traced(4, "[cntbackup2backup]  CNT_BACKUP ---> BACKUP from_file=" + flash_backup +
                                  " to_file=kesta_backup0"));
    EXPECT_TRUE(p().traced(5, "[cntbackup2backup] CNT backup area path. c_name=" + flash_backup));
    EXPECT_EQ(p().traces.back().text, "[cntbackup2backup] END ret=0");
}

TEST_F(CntBackup2Backup, EmptyArchiveIsCopied)
{
    write_file(flash_backup, "");
    EXPECT_EQ(kestal_cntbackup2backup(), 0);
    EXPECT_EQ(p().sysback.at("kesta_backup0").bytes, "");
    EXPECT_EQ(p().sysback.at("kesta_backup0").recorded_size, 0);
}

TEST_F(CntBackup2Backup, UnknownSlotName)
{
    p().sysback.erase("kesta_sysback");
    p().fail_kind("nv_read", 2, 5);
    EXPECT_EQ(kestal_cntbackup2backup(), -1);
    EXPECT_TRUE(p().traced(1, "[cntbackup2backup] Get Backup area file name ERROR result=-1"));
}

TEST_F(CntBackup2Backup, MissingArchive)
{
    std::filesystem::remove(flash_backup);
    EXPECT_EQ(kestal_cntbackup2backup(), -1);
    EXPECT_TRUE(p().traced(1, "[get_file_size] File open Error f_name =" + flash_backup + " errno=2"));
    EXPECT_TRUE(p().traced(1, "[cntbackup2backup]  Get File size ERROR c_name=" + flash_backup));
    EXPECT_FALSE(p().sysback.contains("kesta_backup0"));
}

TEST_F(CntBackup2Backup, FolderWhereTheArchiveShouldBe)
{
    std::filesystem::remove(flash_backup);
    std::filesystem::create_directory(flash_backup);
    EXPECT_EQ(kestal_cntbackup2backup(), -1);
    EXPECT_FALSE(p().sysback.contains("kesta_backup0"));
}

TEST_F(CntBackup2Backup, EachStepThatFails)
{
    p().fail_kind("alloc", 1, 1);  // the first one is the buffer of the name's mirror
    EXPECT_EQ(kestal_cntbackup2backup(), -1);
    EXPECT_TRUE(p().traced(1, "[cntbackup2backup] MALLOC ERROR size=17 errno=12"));
    p().kind_faults.clear();
    p().fault_errno = 13;
    p().fail_kind("open", 0, 1);
    EXPECT_EQ(kestal_cntbackup2backup(), -1);
    EXPECT_TRUE(p().traced(1, "[cntbackup2backup]  File Open(Read) ERROR c_name=" + flash_backup + ", errno=13"));
    p().fault_errno = 5;
    p().fail_kind("read", 0, 1);
    EXPECT_EQ(kestal_cntbackup2backup(), -1);
    EXPECT_TRUE(p().traced(1, "[cntbackup2backup]  Read ERROR c_name=" + flash_backup + " f_size=17 errno=5"));
    p().fail_kind("sb_write", 0, 1);
    EXPECT_EQ(kestal_cntbackup2backup(), -1);
    EXPECT_TRUE(p().traced(1, "[cntbackup2backup]  Write Backup area ERROR f_name=kesta_backup0"));
    EXPECT_EQ(p().count("[cntbackup2backup] END ret=-1"), 4);
    EXPECT_EQ(kestal_cntbackup2backup(), 0);
}

TEST_F(CntBackup2Backup, ArchiveThatShrinksIsNotDetected)
{
    p().before_call = [&](const std::string &call) {
        if (call.rfind("open /opt", 0) == 0) {
            write_file(flash_backup, "saved");
        }
    };
    EXPECT_EQ(kestal_cntbackup2backup(), 0);
    EXPECT_EQ(p().sysback.at("kesta_backup0").bytes, "saved" + std::string(12, '\0'));
}

TEST_F(CntBackup2Backup, EveryFaultIsToldAndNeverHalfWritten)
{
    sweep_faults(
        [&] {
            reset();
            use_slots();
            p().sysback["kesta_backup0"] = {"former"};
        },
        [] { return kestal_cntbackup2backup(); },
        [&](int result, bool met) {
            if (!met) {
                EXPECT_EQ(result, 0);
            }
            if (result == 0) {
                EXPECT_EQ(p().sysback.at("kesta_backup0").bytes, "saved environment");
            } else {
                EXPECT_EQ(result, -1);
                EXPECT_FALSE(p().texts(1).empty());
            }
        });
}

class MergeFile2Accept : public LibraryTest {
protected:
    MergeFile2Accept()
    {
        use_slots("kesta_backup0", "kesta_backup1");
        write_file(merge_backup, "merged");
    }
    void name(const std::string &text)
    {
        memset(slot, '#', sizeof(slot));
        memcpy(slot, text.c_str(), text.size() + 1);
    }
    char slot[32] = "";
};

TEST_F(MergeFile2Accept, GivenSlotIsUsedWithoutLookup)
{
    name("kesta_backup0");
    EXPECT_EQ(kestal_merge_file2accept(slot), 0);
    EXPECT_THAT(p().calls_of("nv_"), IsEmpty());
    EXPECT_EQ(p().sysback.at("kesta_backup0").bytes, "merged");
    EXPECT_THAT(p().texts(4), Contains("[merge_file2accept] acceptfile(arg)=kesta_backup0"));
    EXPECT_TRUE(p().traced(4, "[merge_file2accept] Tmp(" + merge_backup + ") ---> SYSBACK(accept:kesta_backup0)"));
}

TEST_F(MergeFile2Accept, AnyOtherTextIsReplacedByTheAcceptSlot)
{
    for (const char *other : {"", "kesta_backup2", "kesta_backup0x", "KESTA_BACKUP0"}) {
        name(other);
        p().traces.clear();
        p().sysback.erase("kesta_backup1");
        EXPECT_EQ(kestal_merge_file2accept(slot), 0);
        EXPECT_STREQ(slot, "kesta_backup1");
        EXPECT_EQ(slot[31], '\0') << "all 32 bytes";
        EXPECT_EQ(p().sysback.at("kesta_backup1").bytes, "merged");
        EXPECT_TRUE(p().traced(3, "[merge_file2accept] acceptfile(sysvol)=kesta_backup1"));
        EXPECT_TRUE(p().traced(5, "[merge_file2accept] ACCEPT file=kesta_backup1"));
        EXPECT_TRUE(p().traced(5, "[merge_file2accept] Tmp area path. t_name=" + merge_backup));
    }
}

TEST_F(MergeFile2Accept, FullBufferWithoutTerminatorIsNotReadBeyond)
{
    memset(slot, 'k', sizeof(slot));
    EXPECT_EQ(kestal_merge_file2accept(slot), 0);
    EXPECT_STREQ(slot, "kesta_backup1");
}

TEST_F(MergeFile2Accept, NullIsRefused)
{
    EXPECT_EQ(kestal_merge_file2accept(nullptr), -931);
    EXPECT_EQ(p().texts(1).size(), 1u);
    EXPECT_THAT(p().calls, IsEmpty());
}

TEST_F(MergeFile2Accept, UnknownAcceptSlot)
{
    p().set_text(nv_accept_name, "", 32);
    p().sysback.erase("kesta_sysacpt");
    p().fail_kind("nv_read", 3, 5);
    name("x");
    EXPECT_EQ(kestal_merge_file2accept(slot), -1);
    EXPECT_TRUE(p().traced(1, "[merge_file2accept] Get Accept area file name ERROR result=-1"));
    EXPECT_STREQ(slot, "x");
}

TEST_F(MergeFile2Accept, EachStepThatFails)
{
    name("kesta_backup1");
    std::filesystem::remove(merge_backup);
    EXPECT_EQ(kestal_merge_file2accept(slot), -1);
    EXPECT_TRUE(p().traced(1, "[merge_file2accept]  Get File size ERROR t_name=" + merge_backup));
    write_file(merge_backup, "merged");
    p().fail_kind("alloc", 0, 1);
    EXPECT_EQ(kestal_merge_file2accept(slot), -1);
    EXPECT_TRUE(p().traced(1, "[merge_file2accept] MALLOC ERROR size=6 errno=12"));
    p().fail_kind("open", 0, 1);
    EXPECT_EQ(kestal_merge_file2accept(slot), -1);
    EXPECT_TRUE(p().traced(1, "[merge_file2accept]  File Open(Read) ERROR t_name=" + merge_backup + " errno=5"));
    p().fail_kind("read", 0, 1);
    EXPECT_EQ(kestal_merge_file2accept(slot), -1);
    EXPECT_TRUE(p().traced(1, "[merge_file2accept]  Read ERROR t_name=" + merge_backup + " f_size=6 errno=5"));
    p().fail_kind("sb_open", 0, 1);
    EXPECT_EQ(kestal_merge_file2accept(slot), -1);
    EXPECT_TRUE(p().traced(1, "[merge_file2accept]  Write Accept area ERROR f_name=kesta_backup1 "));
    EXPECT_EQ(p().count("[merge_file2accept] END ret=-1"), 5);
}
