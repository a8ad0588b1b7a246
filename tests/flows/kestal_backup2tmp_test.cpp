#include <filesystem>

#include "library_test.h"

using namespace test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char *cached = "/tmp/kesta_sys/tmp/backup.tar.Z";
constexpr const char *checked = "/tmp/kesta_sys/tmp/check.tar.Z";
constexpr const char *temporary = "/tmp/kesta_sys/tmp/backup.tar.Z.tmp";
constexpr const char *unpack_command =
    "cd /tmp/kesta_sys/tmp/; /usr/bin/bunzip2 -c /tmp/kesta_sys/tmp/backup.tar.Z | "
    "/usr/sbin/tar -xf - > /dev/null 2>&1";

// An archive as the appliance keeps it: files "etc/one" and "etc/two".
std::string real_archive()
{
    write_file("/tmp/source/etc/one", "first\n");
    write_file("/tmp/source/etc/two", std::string(100000, 'x'));
    EXPECT_EQ(run_shell("tar -C /tmp/source -cjf /tmp/source.tar.bz2 etc"), 0);
    return read_file("/tmp/source.tar.bz2");
}

}  // namespace

class Backup2Tmp : public LibraryTest {
protected:
    Backup2Tmp()
    {
        use_slots();
        p().sysback["kesta_backup0"] = {"the backup archive", 18};
        p().sysback["kesta_backup1"] = {"the accept archive", 18};
        p().before_call = nullptr;
    }
    ~Backup2Tmp() override { EXPECT_TRUE(inner_lock_is_free()); }
    char name[33] = "################################";
};

TEST_F(Backup2Tmp, BackupSlotIsCachedAndUnpacked)
{
    EXPECT_EQ(kestal_backup2tmp("group", 0, name, 1), 0);
    EXPECT_STREQ(name, "kesta_backup0");
    EXPECT_EQ(read_file(cached), "the backup archive");
    EXPECT_EQ(mode_of(cached), 0644u);
    EXPECT_FALSE(exists(temporary));
    EXPECT_FALSE(exists(checked));
    EXPECT_THAT(p().system_commands, ElementsAre(unpack_command));
    EXPECT_THAT(p().texts(4), Contains("[backup2tmp] BACKUP(kesta_backup0) ---> TMP"));
    EXPECT_THAT(p().texts(3), Contains("[backup2tmp] tmp-cache update (" + std::string(unpack_command) + ")"));
    EXPECT_EQ(p().traces.front().text, "[backup2tmp] START");
    EXPECT_EQ(p().traces.back(), (Trace{5, "[backup2tmp] END ret=0", "../common/kestal_backup2tmp.cpp"}));
    EXPECT_TRUE(p().traced(5, "[backup2tmp] Tmp area path. t_name=" + std::string(cached)));
}

TEST_F(Backup2Tmp, FailedCloseOfTheCacheIsAFailedWrite)
{
    p().fail_kind("close", 1, 1);  // the first one is the inner lock's
    p().fault_errno = 28;
    EXPECT_EQ(kestal_backup2tmp("group", 0, name, 0), -1);
    EXPECT_THAT(p().texts(1), Contains("[backup2tmp]  Write ERROR  t_name=" + std::string(temporary) +
                                       " buf_size=18 result=-1 errno=28"));
}

TEST_F(Backup2Tmp, WhatSomebodyPlantedIsNotWrittenThrough)
{
    write_file("/tmp/elsewhere", "mine");
    const unsigned mode = mode_of("/tmp/elsewhere");
    const std::string plants[] = {std::string("ln -s /tmp/elsewhere ") + temporary, std::string("mkfifo ") + temporary,
                                  std::string("ln -s /tmp/none ") + temporary};
    for (const std::string &plant : plants) {
        EXPECT_EQ(run_shell(plant), 0);
        EXPECT_EQ(kestal_backup2tmp("group", 0, name, 0), 0) << plant;
        EXPECT_EQ(read_file(checked), "the backup archive");
        EXPECT_EQ(run_shell(std::string("test -f ") + checked + " -a ! -L " + checked), 0);
    }
    EXPECT_EQ(read_file("/tmp/elsewhere"), "mine");
    EXPECT_EQ(mode_of("/tmp/elsewhere"), mode);
    EXPECT_FALSE(exists("/tmp/none"));
    EXPECT_EQ(run_shell("rm /tmp/elsewhere"), 0);
}

TEST_F(Backup2Tmp, LargeArchiveIsCachedWhole)
{
    std::string large(9'000'000, '\0');
    for (std::size_t i = 0; i < large.size(); ++i) {
        large[i] = static_cast<char>(i * 7919 >> 8);
    }
    p().sysback["kesta_backup0"] = {large};
    EXPECT_EQ(kestal_backup2tmp("group", 0, name, 0), 0);
    EXPECT_TRUE(read_file(checked) == large);
}

TEST_F(Backup2Tmp, OtherModesMakeTheCheckArchiveAndUnpackNothing)
{
    for (const int mode : {0, 2, -1}) {
        p().calls.clear();
        EXPECT_EQ(kestal_backup2tmp("group", 1, name, mode), 0);
        EXPECT_STREQ(name, "kesta_backup1");
        EXPECT_EQ(read_file(checked), "the accept archive");
        EXPECT_FALSE(exists(cached));
        EXPECT_THAT(p().calls_of("open"), ElementsAre("open " + std::string(temporary)))
            << "named after backup.tar.Z in every mode";
        EXPECT_TRUE(p().traced(5, "[backup2tmp] Tmp area path. t_name=" + std::string(checked)));
    }
    EXPECT_THAT(p().system_commands, IsEmpty());
}

TEST_F(Backup2Tmp, RealArchiveIsUnpackedInTheCache)
{
    p().sysback["kesta_backup0"] = {real_archive()};
    p().run_system = true;
    EXPECT_EQ(kestal_backup2tmp("group", 0, nullptr, 1), 0);
    EXPECT_EQ(read_file("/tmp/kesta_sys/tmp/etc/one"), "first\n");
    EXPECT_EQ(read_file("/tmp/kesta_sys/tmp/etc/two"), std::string(100000, 'x'));
}

TEST_F(Backup2Tmp, DamagedArchiveIsReportedAfterAll)
{
    p().run_system = true;
    EXPECT_EQ(kestal_backup2tmp("group", 0, nullptr, 1), -1);
    EXPECT_EQ(p().count("[backup2tmp] /tmp/kesta_sys/tmp/backup.*.tar update error. result = "), 1);
    EXPECT_EQ(p().count("[backup2tmp] tmp-cache update ("), 1) << "logged all the same";
    EXPECT_EQ(read_file(cached), "the backup archive");
}

TEST_F(Backup2Tmp, NullGroupIsRefused)
{
    EXPECT_EQ(kestal_backup2tmp(nullptr, 0, name, 1), -931);
    EXPECT_THAT(p().traces, ElementsAre(Trace{5, "[backup2tmp] START", "../common/kestal_backup2tmp.cpp"},
                                        Trace{1, "[backup2tmp] Group name ERROR", "../common/kestal_backup2tmp.cpp"}));
    EXPECT_THAT(p().calls, IsEmpty());
}

TEST_F(Backup2Tmp, UnknownSlotNameIsLoggedAtLevelFive)
{
    p().sysback.erase("kesta_sysback");
    p().fail_kind("nv_read", 2, 5);
    EXPECT_EQ(kestal_backup2tmp("group", 0, name, 1), -1);
    EXPECT_TRUE(p().traced(5, "[backup2tmp] Get Backup area file name ERROR  result=-1"));
    EXPECT_EQ(name[0], '#');
    EXPECT_FALSE(exists(cached));
}

TEST_F(Backup2Tmp, UnreadableSlotMovesAStaleTemporaryFile)
{
    p().sysback.erase("kesta_backup0");
    write_file(temporary, "left by an earlier copy");
    EXPECT_EQ(kestal_backup2tmp("group", 0, nullptr, 1), -1);
    EXPECT_TRUE(p().traced(1, "[backup2tmp]  Read Backup area ERROR  f_name=kesta_backup0 "));
    EXPECT_EQ(read_file(cached), "left by an earlier copy");
    EXPECT_EQ(mode_of(cached), 0644u);
    EXPECT_THAT(p().system_commands, ElementsAre(unpack_command)) << "whatever the result so far";
    EXPECT_EQ(p().count("move "), 0);
}

TEST_F(Backup2Tmp, UnreadableSlotWithoutTemporaryFileFailsTheRenameToo)
{
    p().sysback.erase("kesta_backup0");
    EXPECT_EQ(kestal_backup2tmp("group", 0, nullptr, 0), -1);
    EXPECT_TRUE(p().traced(1, "[backup2tmp] move " + std::string(temporary) + " -> " + checked + " error. errno=2"));
    EXPECT_EQ(p().count("[backup2tmp] chmod error(filename:" + std::string(checked) + ") errno=2"), 1);
    EXPECT_TRUE(p().traced(5, "[backup2tmp] END ret=-1"));
}

TEST_F(Backup2Tmp, LongerTemporaryFileKeepsItsTail)
{
    write_file(temporary, std::string(30, 't'));
    EXPECT_EQ(kestal_backup2tmp("group", 0, nullptr, 0), 0);
    EXPECT_EQ(read_file(checked), "the backup archive" + std::string(12, 't'));
}

TEST_F(Backup2Tmp, NewTemporaryFileIsPrivateUntilItIsWhole)
{
    unsigned mode = 0;
    p().before_call = [&](const std::string &call) {
        if (call.rfind("write", 0) == 0) {
            mode = mode_of(temporary);
        }
    };
    EXPECT_EQ(kestal_backup2tmp("group", 0, nullptr, 0), 0);
    EXPECT_EQ(mode, 0600u);
}

TEST_F(Backup2Tmp, MissingCacheFolder)
{
    std::filesystem::remove_all("/tmp/kesta_sys");
    EXPECT_EQ(kestal_backup2tmp("group", 0, nullptr, 1), -1);
    EXPECT_TRUE(p().traced(1, "[backup2tmp]  File Open(write) ERROR  t_name=" + std::string(temporary) + ", errno=2"));
}

TEST_F(Backup2Tmp, FolderWhereTheTemporaryFileShouldBe)
{
    std::filesystem::create_directories(temporary);
    EXPECT_EQ(kestal_backup2tmp("group", 0, nullptr, 0), -1);
    EXPECT_TRUE(p().traced(1, "[backup2tmp]  File Open(write) ERROR  t_name=" + std::string(temporary) + ", errno=21"));
    EXPECT_TRUE(std::filesystem::is_directory(checked)) << "moved all the same";
}

TEST_F(Backup2Tmp, ShortWriteIsAFailure)
{
    p().fail_kind("write", 0, 1);
    p().short_by = 0;
    p().fault_errno = 28;
    EXPECT_EQ(kestal_backup2tmp("group", 0, nullptr, 0), -1);
    EXPECT_TRUE(p().traced(1, "[backup2tmp]  Write ERROR  t_name=" + std::string(temporary) +
                                  " buf_size=18 result=-1 errno=28"));
}

TEST_F(Backup2Tmp, FullDiskIsNoticed)
{
    std::filesystem::remove_all("/tmp/kesta_sys/tmp");
    std::filesystem::create_directories("/tmp/kesta_sys/tmp");
    ASSERT_EQ(mount_small("/tmp/kesta_sys/tmp", 64 * 1024), 0);
    p().sysback["kesta_backup0"] = {std::string(1 << 20, 'a')};
    EXPECT_EQ(kestal_backup2tmp("group", 0, nullptr, 0), -1);
    EXPECT_EQ(p().count("[backup2tmp]  Write ERROR  t_name="), 1);
    unmount("/tmp/kesta_sys/tmp");
}

TEST_F(Backup2Tmp, ReadOnlyCache)
{
    ASSERT_EQ(mount_small("/tmp/kesta_sys/tmp", 64 * 1024, true), 0);
    EXPECT_EQ(kestal_backup2tmp("group", 0, nullptr, 0), -1);
    EXPECT_TRUE(p().traced(1, "[backup2tmp]  File Open(write) ERROR  t_name=" + std::string(temporary) + ", errno=30"));
    unmount("/tmp/kesta_sys/tmp");
}

TEST_F(Backup2Tmp, FailedChmodIsOnlyLogged)
{
    p().fail_kind("chmod");
    p().fault_errno = 1;
    EXPECT_EQ(kestal_backup2tmp("group", 0, nullptr, 1), 0);
    EXPECT_EQ(p().count("[backup2tmp] chmod error(filename:" + std::string(cached) + ") errno=1"), 1);
}

TEST_F(Backup2Tmp, ShortReadFreesTheBufferHandedBack)
{
    p().short_by = 1;  // the sanitizers see a leak
    EXPECT_EQ(kestal_backup2tmp("group", 0, nullptr, 0), -1);
    EXPECT_FALSE(exists(checked));
}

TEST_F(Backup2Tmp, FailedCloseOfTheSlotCountsAsUnread)
{
    p().close_result = -30;
    EXPECT_EQ(kestal_backup2tmp("group", 0, nullptr, 0), -1);
    EXPECT_FALSE(exists(checked));
    p().close_result = 30;  // a positive code is no success either
    EXPECT_EQ(kestal_backup2tmp("group", 0, nullptr, 0), -1);
    EXPECT_FALSE(exists(checked));
}

TEST_F(Backup2Tmp, SlotThatVanishesAfterTheLookup)
{
    p().after_call = nullptr;
    p().before_call = [&](const std::string &call) {
        if (call == "sb_open kesta_backup0 r") {
            p().sysback.erase("kesta_backup0");
        }
    };
    EXPECT_EQ(kestal_backup2tmp("group", 0, name, 0), -1);
    EXPECT_STREQ(name, "kesta_backup0") << "the name that was used is told";
}

TEST_F(Backup2Tmp, UnpackResultAndErrnoAreThoseOfTheCommand)
{
    p().system_statuses = {2 << 8};
    EXPECT_EQ(kestal_backup2tmp("group", 0, nullptr, 1), -1);
    EXPECT_EQ(p().count("[backup2tmp] /tmp/kesta_sys/tmp/backup.*.tar update error. result = 2 "
                        "errno="),
              1);
}

TEST_F(Backup2Tmp, EveryFaultIsTold)
{
    sweep_faults(
        [&] {
            reset();
            clear_appliance_folders();
            use_slots();
            p().sysback["kesta_backup0"] = {"the backup archive"};
        },
        [] { return kestal_backup2tmp("group", 0, nullptr, 1); },
        [&](int result, bool met) {
            if (!met) {
                EXPECT_EQ(result, 0);
            }
            if (result == 0) {
                EXPECT_EQ(read_file(cached), "the backup archive");
            } else {
                EXPECT_EQ(result, -1);
                EXPECT_FALSE(p().texts(1).empty());
            }
        });
}
