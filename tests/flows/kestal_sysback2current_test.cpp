#include <filesystem>

#include "library_test.h"

using namespace test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr const char *flash_backup = "/opt/kesta_sys/bakup/backup.tar.Z";
constexpr const char *flash_copy = "/opt/kesta_sys/bakup/tmp.tar.Z";
constexpr const char *flash_accept = "/opt/kesta_sys/bakup/accept.tar.Z";
constexpr const char *merged = "/var/run/kesta_sys/tmp/backup.tar.Z";
constexpr const char *folder = "/etc/kesta_sys/default/";

const std::string tag = "[sysback2current] ";
const std::string flash_copy_command =
    "cp -p /opt/kesta_sys/bakup/accept.tar.Z /var/run/kesta_sys/tmp/backup.tar.Z > /dev/null 2>&1";

std::string script(const std::string &kind)
{
    return "/bin/sh /etc/kesta_sys/default/env_restore1_" + kind + "_scr.sh > /dev/null 2>&1";
}

// The arguments by name.
struct Restore {
    const char *group = "default";
    int switch_only = 0;
    int area_flag = 2;
    int rbflg = 1;
    int distribution = 0;
    char *fileptr = nullptr;
    int skip_flashcopy = 0;

    int run() const
    {
        return kestal_sysback2current(group, switch_only, area_flag, rbflg, distribution, fileptr, skip_flashcopy);
    }
};

}  // namespace

class Sysback2Current : public LibraryTest {
protected:
    Sysback2Current() { prepare(); }
    ~Sysback2Current() override { EXPECT_TRUE(inner_lock_is_free()); }
    static void prepare()
    {
        use_slots("kesta_backup0", "kesta_backup1");
        p().sysback["kesta_backup0"] = {"backup slot"};
        p().sysback["kesta_backup1"] = {"accept slot"};
        p().run_system = true;
        write_file(flash_accept, "accepted");
        write_file(flash_backup, "former");
        for (const char *kind : {"udbk", "rbbk", "udap", "rbap", "udbk3", "rbap12", "udbk-1"}) {
            write_file(std::string(folder) + "env_restore1_" + kind + "_scr.sh",
                       "echo " + std::string(kind) + " >> " + folder + "ran\n");
        }
    }
    static std::string ran() { return read_file(std::string(folder) + "ran"); }
};

TEST_F(Sysback2Current, ScriptNames)
{
    const struct {
        int area_flag, rbflg, distribution;
        const char *kind;
    } cases[] = {{0, 1, 0, "udbk"},  {0, 2, 0, "rbbk"},    {1, 1, 0, "udbk"},   {1, 2, 0, "rbbk"},
                 {2, 1, 0, "udbk"},  {2, 2, 0, "rbbk"},    {3, 1, 0, "udap"},   {3, 2, 0, "rbap"},
                 {2, 1, 3, "udbk3"}, {3, 2, 12, "rbap12"}, {2, 1, -1, "udbk-1"}};
    for (const auto &c : cases) {
        p().system_commands.clear();
        EXPECT_EQ((Restore{.area_flag = c.area_flag, .rbflg = c.rbflg, .distribution = c.distribution}).run(), 0)
            << c.kind;
        EXPECT_EQ(p().system_commands.back(), script(c.kind));
        EXPECT_EQ(p().system_commands.size(), c.rbflg == 1 ? 2u : 1u) << "the copy before an update";
    }
}

TEST_F(Sysback2Current, AcceptSlotIsSwitchedToFlashAndABackupSideScriptRuns)
{
    EXPECT_EQ((Restore{.area_flag = 0}).run(), 0);
    EXPECT_EQ(read_file(flash_backup), "accept slot");
    EXPECT_EQ(mode_of(flash_backup), 0644u);
    EXPECT_FALSE(exists(flash_copy));
    EXPECT_EQ(ran(), "udbk\n");
    EXPECT_EQ(read_file(merged), "accepted");
    EXPECT_THAT(p().texts(4), Contains(tag + "SYSBACK(kesta_backup1) ---> CNT_BACKUP(" + flash_copy + ")"));
    EXPECT_TRUE(p().traced(4, tag + "FLASHCOPY(/opt/kesta_sys/bakup/accept.tar.Z -> "
                                    "/var/run/kesta_sys/tmp/backup.tar.Z)"));
    EXPECT_TRUE(p().traced(4, tag + "SYSBACK(kesta_backup1) ---> CURRENT(cmd:" + script("udbk") + ")"));
    EXPECT_TRUE(p().traced(4, tag + "Script(Copy From System backup area to current Start) Exe "
                                    "Success. result=0"));
    const std::vector<std::string> progress = p().texts(5);
    EXPECT_THAT(progress, Contains(tag + "START(area_flag:0)"));
    EXPECT_THAT(progress, Contains(tag + "SWITCH(area_flag:0)"));
    EXPECT_THAT(progress, Contains(tag + "SWITCH-IN"));
    EXPECT_THAT(progress, Contains(tag + "SWITCH-END(area_flag:0)"));
    EXPECT_THAT(progress, Contains(tag + "CNT backup area path. c_name=" + flash_copy));
    EXPECT_THAT(progress, Contains(tag + "Current(area_flag:0, distribution:0, rbflg:1)"));
    EXPECT_EQ(progress.back(), tag + "END ret=0");
    EXPECT_EQ(p().calls_of("fsync").size(), 1u);
}

TEST_F(Sysback2Current, BackupSlotAndSwitchOnly)
{
    char name[32] = "";
    EXPECT_EQ((Restore{.switch_only = 1, .area_flag = 1, .fileptr = name}).run(), 0);
    EXPECT_STREQ(name, "kesta_backup0");
    EXPECT_EQ(read_file(flash_backup), "backup slot");
    EXPECT_THAT(p().system_commands, IsEmpty());
    EXPECT_TRUE(p().traced(4, tag + "f_name:kesta_backup0, fileptr:kesta_backup0"));
    EXPECT_EQ((Restore{.switch_only = 2, .area_flag = 1, .rbflg = 2}).run(), 0);
    EXPECT_EQ(ran(), "rbbk\n") << "any value but 1 runs the current stage too";
}

TEST_F(Sysback2Current, NoSwitchAndSwitchOnlyDoesNothing)
{
    for (const int area_flag : {2, 3}) {
        p().calls.clear();
        EXPECT_EQ((Restore{.switch_only = 1, .area_flag = area_flag}).run(), 0);
        EXPECT_THAT(p().calls, IsEmpty());
    }
    EXPECT_EQ(read_file(flash_backup), "former");
}

TEST_F(Sysback2Current, GivenSlotNeedsNoLookup)
{
    char name[32] = "kesta_backup1";
    p().calls.clear();
    EXPECT_EQ((Restore{.area_flag = 7, .fileptr = name}).run(), 0);
    EXPECT_EQ(read_file(flash_backup), "accept slot");
    EXPECT_THAT(p().calls_of("nv_"), IsEmpty());
    EXPECT_EQ(ran(), "udbk\n");
    EXPECT_TRUE(p().traced(4, tag + "f_name:kesta_backup1, fileptr:kesta_backup1"));
    EXPECT_EQ(p().count("SWITCH-IN"), 0);
    // Also where the flag would have named another slot.
    EXPECT_EQ((Restore{.area_flag = 1, .fileptr = name}).run(), 0);
    EXPECT_EQ(read_file(flash_backup), "accept slot");
}

TEST_F(Sysback2Current, GivenNameMayFillItsField)
{
    char name[32];
    memset(name, 'n', sizeof(name));
    p().sysback[std::string(32, 'n')] = {"odd"};
    EXPECT_EQ((Restore{.switch_only = 1, .area_flag = 9, .fileptr = name}).run(), 0);
    EXPECT_EQ(read_file(flash_backup), "odd");
}

TEST_F(Sysback2Current, OtherAreaFlagsNeedAName)
{
    char empty[32] = "";
    for (char *fileptr : {static_cast<char *>(nullptr), empty}) {
        for (const int area_flag : {7, 4, -1}) {
            p().traces.clear();
            EXPECT_EQ((Restore{.area_flag = area_flag, .fileptr = fileptr}).run(), -931);
            EXPECT_THAT(p().texts(1),
                        ElementsAre(tag + "Argument ERROR(area_flag=" + std::to_string(area_flag) + ")."));
            EXPECT_EQ(p().count("END ret"), 0);
        }
    }
    EXPECT_THAT(p().system_commands, IsEmpty());
}

TEST_F(Sysback2Current, NullGroupIsRefused)
{
    EXPECT_EQ((Restore{.group = nullptr}).run(), -931);
    EXPECT_THAT(p().texts(5), ElementsAre(tag + "START(area_flag:2)"));
    EXPECT_THAT(p().texts(1), ElementsAre(tag + "Group name ERROR"));
    EXPECT_THAT(p().calls, IsEmpty());
}

TEST_F(Sysback2Current, GroupThatAShellWouldActOnIsRefusedBeforeAnythingIsDone)
{
    const std::string overlong(256, 'g');
    for (const char *group : {"app/x; id; echo", "a b", "$(id)", "`id`", "a|b", "a*", "~", overlong.c_str()}) {
        for (const int area_flag : {0, 1, 2, 3}) {
            EXPECT_EQ((Restore{.group = group, .area_flag = area_flag}).run(), -931) << group;
            EXPECT_EQ(p().traces.back().text, tag + "Group name ERROR");
        }
    }
    EXPECT_THAT(p().calls, IsEmpty());
    EXPECT_THAT(p().system_commands, IsEmpty());
}

TEST_F(Sysback2Current, MissingFlashAcceptArchiveIsASilentSuccessWithoutScript)
{
    std::filesystem::remove(flash_accept);
    EXPECT_EQ((Restore{}).run(), 0);
    EXPECT_THAT(p().system_commands, ElementsAre(flash_copy_command));
    EXPECT_TRUE(p().traced(4, tag + "FLASHCOPY(cmd:" + flash_copy_command + ") Execute Error."));
    EXPECT_THAT(p().texts(1), IsEmpty());
    EXPECT_EQ(ran(), "");
    // Skipped copy: the script runs.
    EXPECT_EQ((Restore{.skip_flashcopy = 1}).run(), 0);
    EXPECT_EQ(ran(), "udbk\n");
    // The reboot script never copies.
    EXPECT_EQ((Restore{.rbflg = 2}).run(), 0);
    EXPECT_EQ(ran(), "udbk\nrbbk\n");
}

TEST_F(Sysback2Current, OtherScriptFlagsRunAnEmptyCommand)
{
    for (const int rbflg : {0, 3, -1}) {
        p().system_commands.clear();
        EXPECT_EQ((Restore{.rbflg = rbflg}).run(), 0);
        EXPECT_THAT(p().system_commands, ElementsAre(""));
        EXPECT_TRUE(p().traced(4, tag + "SYSBACK() ---> CURRENT(cmd:)"));
    }
}

TEST_F(Sysback2Current, FailingScript)
{
    write_file(std::string(folder) + "env_restore1_udbk_scr.sh", "exit 5\n");
    EXPECT_EQ((Restore{.area_flag = 0}).run(), 2);
    EXPECT_TRUE(p().traced(1, tag + "Script(Copy From System backup area to current Start) Exe "
                                    "Error result =5"));
    EXPECT_TRUE(p().traced(5, tag + "END ret=2"));
    std::filesystem::remove(std::string(folder) + "env_restore1_udbk_scr.sh");
    EXPECT_EQ((Restore{}).run(), 2);
}

TEST_F(Sysback2Current, FailedLookup)
{
    p().sysback.erase("kesta_sysback");
    p().fail_kind("nv_read", 2, 5);
    EXPECT_EQ((Restore{.area_flag = 1}).run(), 1);
    EXPECT_EQ(p().count(tag + "Get area file name ERROR result=-1"), 1);
    EXPECT_EQ(p().count(tag + "END ret"), 0);
    EXPECT_THAT(p().system_commands, IsEmpty());
}

TEST_F(Sysback2Current, UnreadableSlotLeavesFlashUntouched)
{
    p().sysback.erase("kesta_backup1");
    EXPECT_EQ((Restore{.area_flag = 0}).run(), 9);
    EXPECT_EQ(p().count(tag + " Read System backup area ERROR f_name=kesta_backup1 "), 1);
    EXPECT_EQ(p().count(tag + "END ret"), 0);
    EXPECT_EQ(read_file(flash_backup), "former");
    EXPECT_FALSE(exists(flash_copy));
    EXPECT_THAT(p().system_commands, IsEmpty());
    // A short read hands a buffer back, which is freed: the sanitizers would see it.
    p().sysback["kesta_backup1"] = {"accept slot"};
    p().short_by = 2;
    char name[32] = "kesta_backup1";
    EXPECT_EQ((Restore{.area_flag = 7, .fileptr = name}).run(), 9);
    p().short_by = 0;
    p().close_result = 4;
    EXPECT_EQ((Restore{.area_flag = 7, .fileptr = name}).run(), 9);
    EXPECT_EQ(read_file(flash_backup), "former");
}

TEST_F(Sysback2Current, EachStepOfTheSwitchThatFailsRunsNoScript)
{
    p().fault_errno = 28;
    p().fail_kind("open", 0, 1);
    EXPECT_EQ((Restore{.area_flag = 0}).run(), 1);
    EXPECT_TRUE(p().traced(1, tag + " File Open(write) ERROR c_name=" + flash_copy + ", errno=28"));
    p().fail_kind("write", 0, 1);
    EXPECT_EQ((Restore{.area_flag = 0}).run(), 1);
    EXPECT_TRUE(p().traced(1, tag + " File Write ERROR c_name=" + flash_copy + " buf_size=11 result=-1 errno=28"));
    p().fail_kind("fsync", 0, 1);
    EXPECT_EQ((Restore{.area_flag = 0}).run(), 1) << "the bytes did not reach flash";
    p().fail_kind("rename", 0, 1);
    EXPECT_EQ((Restore{.area_flag = 0}).run(), 1);
    EXPECT_TRUE(p().traced(1, tag + "sysvol backup.tar.Z -> backup.tar.Z Copy Error result =-1, errno=28"));
    EXPECT_EQ(p().count(tag + "END ret=1"), 4);
    EXPECT_THAT(p().system_commands, IsEmpty());
    EXPECT_EQ(read_file(flash_backup), "former");
    p().fail_kind("chmod", 0, 1);
    EXPECT_EQ((Restore{.area_flag = 0}).run(), 0) << "only logged";
    EXPECT_EQ(p().count(tag + "chmod error(filename:" + flash_copy + ") errno=28"), 1);
}

TEST_F(Sysback2Current, OldCopyKeepsItsTailAndFullFlashIsNoticed)
{
    write_file(flash_copy, std::string(20, 't'));
    EXPECT_EQ((Restore{.switch_only = 1, .area_flag = 0}).run(), 0);
    EXPECT_EQ(read_file(flash_backup), "accept slot" + std::string(9, 't'));

    ASSERT_EQ(mount_small("/opt/kesta_sys/bakup", 8192), 0);
    p().sysback["kesta_backup1"] = {std::string(100000, 'z')};
    EXPECT_EQ((Restore{.switch_only = 1, .area_flag = 0}).run(), 1);
    EXPECT_EQ(p().count(tag + " File Write ERROR c_name=" + flash_copy + " buf_size=100000"), 1);
    EXPECT_FALSE(exists(flash_backup));
    unmount("/opt/kesta_sys/bakup");
}

TEST_F(Sysback2Current, EveryFaultLeavesAWholeFlashArchive)
{
    sweep_faults(
        [&] {
            reset();
            clear_appliance_folders();
            prepare();
        },
        [] { return (Restore{.area_flag = 0}).run(); },
        [&](int result, bool met) {
            if (!met) {
                EXPECT_EQ(result, 0);
            }
            EXPECT_TRUE(result == 0 || result == 1 || result == 2 || result == 9) << result;
            const std::string now = read_file(flash_backup);
            EXPECT_TRUE(now == "former" || now == "accept slot") << now;
            if (result == 1 || result == 9) {
                EXPECT_EQ(ran(), "") << "a failed switch never runs a script";
            }
        });
}
