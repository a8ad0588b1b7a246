#include <filesystem>

#include "library_test.h"

using namespace test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr const char *cached = "/tmp/kesta_sys/tmp/backup.tar.Z";
constexpr const char *flash_backup = "/opt/kesta_sys/bakup/backup.tar.Z";
constexpr const char *flash_copy = "/opt/kesta_sys/bakup/tmp.tar.Z";
const std::string copy_command =
    "/usr/bin/cp -p /tmp/kesta_sys/tmp/backup.tar.Z /opt/kesta_sys/bakup/tmp.tar.Z > /dev/null "
    "2>&1";
const std::string script_command = "/bin/sh /etc/kesta_sys/default/env_copy_scr.sh > /dev/null 2>&1";
const std::string unpack_command =
    "cd /tmp/kesta_sys/tmp/; /usr/bin/bunzip2 -c /tmp/kesta_sys/tmp/backup.tar.Z | "
    "/usr/sbin/tar -xf - > /dev/null 2>&1";

}  // namespace

class Backup2Copy : public LibraryTest {
protected:
    Backup2Copy() { prepare(); }
    static void prepare()
    {
        use_slots();
        p().sysback["kesta_backup0"] = {archive()};
        p().commands["/usr/sbin/cpinfo -b"] = {"initconf\n", 0};
        p().run_system = true;
        write_file("/etc/kesta_sys/default/env_copy_scr.sh", "touch /etc/kesta_sys/ran\n");
    }
    static const std::string &archive()
    {
        static const std::string bytes = [] {
            write_file("/tmp/source/etc/one", "first\n");
            EXPECT_EQ(run_shell("tar -C /tmp/source -cjf /tmp/source.tar.bz2 etc"), 0);
            return read_file("/tmp/source.tar.bz2");
        }();
        return bytes;
    }
    static bool script_ran() { return exists("/etc/kesta_sys/ran"); }
};

TEST_F(Backup2Copy, InitConfBringsTheBackupSlotToFlashAndRunsTheScript)
{
    EXPECT_EQ(kestal_backup2copy("default"), 0);
    EXPECT_EQ(read_file(cached), archive());
    EXPECT_EQ(read_file(flash_backup), archive());
    EXPECT_EQ(mode_of(flash_backup), 0644u);
    EXPECT_FALSE(exists(flash_copy));
    EXPECT_EQ(read_file("/tmp/kesta_sys/tmp/etc/one"), "first\n");
    EXPECT_TRUE(script_ran());
    EXPECT_THAT(p().system_commands, ElementsAre(unpack_command, copy_command, script_command));
    EXPECT_THAT(p().calls_of("fsync"), ElementsAre("fsync"));
    EXPECT_TRUE(p().traced(5, "[backup2copy] groupname=(default)"));
    EXPECT_TRUE(p().traced(4, "[backup2copy] RWMODE CHECK:0"));
    EXPECT_TRUE(p().traced(3, "[backup2copy] Read sysvol backup.tar.Z for INITCONF & HDDOK"));
    EXPECT_TRUE(p().traced(5, "[backup2copy] Tmp area path. t_name=" + std::string(cached)));
    EXPECT_TRUE(p().traced(5, "[backup2copy] Copy Script s_cmd=" + script_command));
    EXPECT_TRUE(p().traced(5, "[backup2copy] BACKUP ---> COPY"));
    EXPECT_EQ(p().traces.back().text, "[backup2copy] END ret=0");
}

TEST_F(Backup2Copy, NormalAndSuspendOnlyRunTheScript)
{
    for (const char *mode : {"normal\n", "suspend\n", "nonsense\n"}) {
        p().commands["/usr/sbin/cpinfo -b"] = {mode, 0};
        p().system_commands.clear();
        p().calls.clear();
        EXPECT_EQ(kestal_backup2copy("default"), 0);
        EXPECT_THAT(p().system_commands, ElementsAre(script_command));
        EXPECT_THAT(p().calls_of("sb_open"), IsEmpty());
        EXPECT_FALSE(exists(flash_backup));
    }
}

TEST_F(Backup2Copy, InitConfWithoutTheSystemBackupAreaOnlyRunsTheScript)
{
    p().sysback.erase("kesta_sysback");
    EXPECT_EQ(kestal_backup2copy("default"), 0);
    EXPECT_TRUE(p().traced(4, "[backup2copy] RWMODE CHECK:2"));
    EXPECT_THAT(p().system_commands, ElementsAre(script_command));
}

TEST_F(Backup2Copy, BootModeThatIsGoneOnTheSecondQuestionEndsTheFlow)
{
    int asked = 0;
    p().before_call = [&](const std::string &call) {
        if (call.rfind("popen", 0) == 0 && ++asked == 2) {
            p().commands["/usr/sbin/cpinfo -b"] = {"?\n", 0};
        }
    };
    EXPECT_EQ(kestal_backup2copy("default"), -1);
    EXPECT_TRUE(p().traced(1, "[backup2copy] Write Check For Execute Mode Error result=-1."));
    EXPECT_THAT(p().system_commands, IsEmpty());
    EXPECT_THAT(p().texts(5), Not(Contains("[backup2copy] END ret=-1")));
}

TEST_F(Backup2Copy, FailedCacheCopyIsAWarningAndTheScriptDecides)
{
    p().sysback.erase("kesta_backup0");
    EXPECT_EQ(kestal_backup2copy("default"), 0);
    EXPECT_THAT(p().texts(2), Contains("[backup2copy] Copy From Backup area To Tmp area Error."));
    EXPECT_TRUE(script_ran());
    EXPECT_FALSE(exists(flash_backup));
    write_file("/etc/kesta_sys/default/env_copy_scr.sh", "exit 3\n");
    EXPECT_EQ(kestal_backup2copy("default"), -1);
}

TEST_F(Backup2Copy, FailedFlashCopySkipsTheScript)
{
    std::filesystem::remove_all("/opt/kesta_sys/bakup");
    EXPECT_EQ(kestal_backup2copy("default"), -1);
    EXPECT_TRUE(p().traced(1, "[backup2copy] sysvol backup.tar.Z -> backup.tar.Z Copy Error result =1"));
    EXPECT_FALSE(script_ran());
    EXPECT_TRUE(p().traced(5, "[backup2copy] END ret=-1"));
}

TEST_F(Backup2Copy, FullFlashIsNoticed)
{
    ASSERT_EQ(mount_small("/opt/kesta_sys/bakup", 4096), 0);
    write_file("/opt/kesta_sys/bakup/backup.tar.Z", std::string(4096, 'f'));
    EXPECT_EQ(kestal_backup2copy("default"), -1);
    EXPECT_EQ(read_file(flash_backup), std::string(4096, 'f')) << "the former archive is still there";
    EXPECT_FALSE(script_ran());
    unmount("/opt/kesta_sys/bakup");
}

TEST_F(Backup2Copy, FailedFlushIsAFailedFlashCopy)
{
    write_file(flash_backup, "former");
    p().fail_kind("fsync");
    EXPECT_EQ(kestal_backup2copy("default"), -1);
    EXPECT_EQ(read_file(flash_backup), "former");
    EXPECT_FALSE(script_ran());
}

TEST_F(Backup2Copy, FailedRenameSkipsTheScript)
{
    p().fail_kind("rename", 1, 1);  // the first one moves the cached archive
    p().fault_errno = 18;
    EXPECT_EQ(kestal_backup2copy("default"), -1);
    EXPECT_TRUE(p().traced(1,
                           "[backup2copy] Remove From backup.tar.Z -> backup.tar.Z Error. "
                           "result=-1, errno=18"));
    EXPECT_FALSE(script_ran());
}

TEST_F(Backup2Copy, FailedChmodIsOnlyLogged)
{
    p().fail_kind("chmod");
    EXPECT_EQ(kestal_backup2copy("default"), 0);
    EXPECT_EQ(p().count("[backup2copy] chmod error(filename:" + std::string(flash_copy) + ") errno=5"), 1);
}

TEST_F(Backup2Copy, CopyThatCanNotBeOpenedForFlushingIsRenamedAllTheSame)
{
    p().before_call = [&](const std::string &call) {
        if (call == std::string("open ") + flash_copy) {
            p().fail_kind("open", 0, 1);
        }
    };
    EXPECT_EQ(kestal_backup2copy("default"), 0);
    EXPECT_EQ(read_file(flash_backup), archive());
    EXPECT_THAT(p().calls_of("fsync"), IsEmpty());
}

TEST_F(Backup2Copy, FailingScriptIsReported)
{
    write_file("/etc/kesta_sys/default/env_copy_scr.sh", "exit 7\n");
    EXPECT_EQ(kestal_backup2copy("default"), -1);
    EXPECT_TRUE(p().traced(1, "[backup2copy] Script(BACKUP ---> COPY) exec ERROR result =7"));
}

TEST_F(Backup2Copy, GroupNameIsChecked)
{
    EXPECT_EQ(kestal_backup2copy(nullptr), -931);
    EXPECT_EQ(kestal_backup2copy(std::string(300, 'g').c_str()), -931) << "fits no folder";
    EXPECT_THAT(p().texts(1), ElementsAre("[backup2copy] Group name ERROR", "[backup2copy] Group name ERROR"));
    EXPECT_THAT(p().system_commands, IsEmpty());
}

TEST_F(Backup2Copy, GroupThatAShellWouldActOnIsRefusedBeforeAnythingIsDone)
{
    for (const char *group : {"app/x; id; echo", "a b", "$(id)", "`id`", "a|b", "a>b", "a*", "#", "~"}) {
        EXPECT_EQ(kestal_backup2copy(group), -931) << group;
        EXPECT_EQ(p().traces.back().text, "[backup2copy] Group name ERROR");
    }
    EXPECT_THAT(p().calls, IsEmpty());
    EXPECT_THAT(p().system_commands, IsEmpty());
}

TEST_F(Backup2Copy, LongestGroupFolderFitsTheCommand)
{
    const std::string group(255, 'g');
    p().commands["/usr/sbin/cpinfo -b"] = {"normal\n", 0};
    write_file("/etc/kesta_sys/" + group + "/env_copy_scr.sh", "touch /etc/kesta_sys/ran\n");
    EXPECT_EQ(kestal_backup2copy(group.c_str()), 0);
    EXPECT_TRUE(script_ran());
}

TEST_F(Backup2Copy, EveryFaultLeavesAWholeFlashArchive)
{
    sweep_faults(
        [&] {
            reset();
            clear_appliance_folders();
            prepare();
            write_file(flash_backup, "former");
        },
        [] { return kestal_backup2copy("default"); },
        [&](int result, bool met) {
            if (!met) {
                EXPECT_EQ(result, 0);
            }
            EXPECT_TRUE(result == 0 || result == -1) << result;
            const std::string now = read_file(flash_backup);
            EXPECT_TRUE(now == "former" || now == archive()) << now.size();
        });
}
