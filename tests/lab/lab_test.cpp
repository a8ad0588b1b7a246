#include "lab_fixture.h"

using namespace test;
using testing::HasSubstr;
using testing::Not;

class Lab : public LabTest {};

TEST_F(Lab, FoldersOfSomebodyElseAreNoLabs)
{
    const fs::path other = home / "other";
    fs::create_directory(other);
    if (geteuid() != 0 || chown(other.c_str(), 12345, 12345) != 0) {
        return;  // only root can give a folder away
    }
    const Ran made = shell(lab() + " create " + other.string());
    EXPECT_EQ(made.code, 1);
    EXPECT_THAT(made.err, HasSubstr("belongs to somebody else"));
    EXPECT_TRUE(fs::is_empty(other));
    fs::copy(dir / "lab.conf", other / "lab.conf");
    for (const char *planted : {"lab.conf", "."}) {
        ASSERT_EQ(chown(other.c_str(), 0, 0), 0);
        ASSERT_EQ(chown((other / "lab.conf").c_str(), 0, 0), 0);
        ASSERT_EQ(chown((other / planted).c_str(), 12345, 12345), 0);
        fs::create_directories(other / "below");
        const Ran entered = shell("cd " + (other / "below").string() + " && " + lab() + " exec CNT0 -- true");
        EXPECT_NE(entered.code, 0);
        EXPECT_THAT(entered.err, HasSubstr("belongs to somebody else"));
    }
}

// What makes a lab of a folder that others can write to is none of ours, whoever its owner is.
TEST_F(Lab, FoldersThatOthersCanWriteToAreNoLabs)
{
    const fs::path shared = home / "shared";
    const auto refused = [&](const std::string &plant, const std::string &text) {
        fs::create_directories(shared / "below");
        EXPECT_EQ(shell("cd " + shared.string() + " && " + plant).code, 0);
        const Ran entered = shell("cd " + shared.string() + "/below && timeout 60 " + lab() + " exec CNT0 -- true");
        EXPECT_EQ(entered.code, 1) << plant;
        EXPECT_THAT(entered.err, HasSubstr(text)) << plant;
        fs::remove_all(shared);
    };
    const std::string marker = (dir / "lab.conf").string();
    refused("cp " + marker + " . && chmod 1777 .", "can be written to by others");
    refused("ln " + marker + " . && chmod 755 .", "is a second name of a file");
    refused("mkfifo lab.conf", "which lab?");
    refused("ln -s " + marker + " lab.conf", "which lab?");
    ASSERT_EQ(shell("chmod o+w " + home.string()).code, 0);
    EXPECT_THAT(on(0, "true").err, HasSubstr(home.string() + " can be written to by others"));
    ASSERT_EQ(shell("chmod o-w " + home.string()).code, 0);
    EXPECT_EQ(on(0, "true").code, 0);
}

TEST_F(Lab, ControllersKnowWhoTheyAre)
{
    for (int n = 0; n < 4; ++n) {
        EXPECT_EQ(on(n, "/usr/sbin/cpinfo -i").out, std::to_string(n) + "\n");
        EXPECT_EQ(on(n, "/usr/sbin/cpinfo -N").out, "4\n");
        EXPECT_EQ(on(n, "/usr/sbin/cpinfo -b").out, "normal\n");
    }
}

TEST_F(Lab, FoldersBelongToEachControllerAndOnlyTheStoreIsShared)
{
    for (const std::string folder : {"/etc", "/opt", "/tmp", "/var/run", "/boot"}) {
        EXPECT_EQ(on(1, "echo mine > " + folder + "/mark").code, 0) << folder;
        EXPECT_EQ(on(1, "cat " + folder + "/mark").out, "mine\n") << "it stays";
        EXPECT_NE(on(2, "cat " + folder + "/mark").code, 0) << folder;
        EXPECT_FALSE(fs::exists(folder + "/mark")) << "not on the host";
    }
    EXPECT_EQ(ctl(1, "nv write group shared").code, 0);
    EXPECT_EQ(ctl(3, "nv read group").out, "shared\n");
}

TEST_F(Lab, CommandLinesFindTheirProgramsAtTheirPaths)
{
    EXPECT_EQ(on(0,
                 "echo x > /tmp/x && /usr/sbin/tar -C /tmp -cf /tmp/x.tar x && "
                 "/usr/bin/bunzip2 --help > /dev/null 2>&1; test -x /usr/sbin/cpinfo")
                  .code,
              0);
    EXPECT_EQ(on(0,
                 "test -d /opt/kesta_sys/bakup -a -d /tmp/kesta_sys/tmp -a "
                 "-d /var/run/kesta_sys/tmp -a -d /etc/kesta_sys")
                  .code,
              0);
}

TEST_F(Lab, ExitCodesAndSignalsComeThrough)
{
    EXPECT_EQ(on(0, "exit 7").code, 7);
    EXPECT_EQ(on(0, "kill -9 $$").code, 128 + 9);
    EXPECT_EQ(shell(lab() + " --dir " + dir.string() + " exec CNT0 -- no-such-command").code, 127);
}

TEST_F(Lab, WrongUseIsRefusedWithOneSentence)
{
    const std::string in = lab() + " --dir " + dir.string() + " ";
    for (const std::string &command :
         {in + "exec CNT4 -- true", in + "exec", in + "frob", lab() + " create " + dir.string(),
          lab() + " --dir " + home.string() + " exec CNT0 -- true", lab() + " destroy " + home.string()}) {
        const Ran refused = shell(command);
        EXPECT_NE(refused.code, 0) << command;
        EXPECT_FALSE(refused.err.empty()) << command;
    }
    EXPECT_TRUE(fs::exists(dir)) << "a folder that is no lab is not removed";
    EXPECT_TRUE(fs::exists(home));
}

TEST_F(Lab, NothingRawReachesTheTerminal)
{
    const fs::path other = home / "red\033[31m";
    fs::create_directory(other);
    (void)std::ofstream(dir / "shared/sysback/\033]0;title\a");
    const std::string in = lab() + " --dir " + dir.string() + " ";
    for (const std::string &command :
         {in + "status '\033[31m'", in + "exec '\033[31mCNT4' -- true", in + "exec CNT0 -- '\033[31m'", in + "status",
          lab() + " --dir '" + other.string() + "' status", lab() + " destroy '" + other.string() + "'",
          in + "exec CNT0 -- kesta-platform-check '\033[31m'"}) {
        const Ran ran = shell(command);
        EXPECT_THAT(ran.out + ran.err, HasSubstr("\\x1b")) << command;
        EXPECT_THAT(ran.out + ran.err, Not(HasSubstr("\033"))) << command;
    }
}

TEST_F(Lab, StatusShowsWhatThereIs)
{
    save_environment(2);
    const Ran status = shell(lab() + " --dir " + dir.string() + " status");
    EXPECT_EQ(status.code, 0);
    for (int n = 0; n < 4; ++n) {
        EXPECT_THAT(status.out, HasSubstr("CNT" + std::to_string(n)));
    }
}

TEST_F(Lab, FaultsAreSetFromOutside)
{
    set_slots();
    EXPECT_EQ(ctl(0, "nv read accept-name --from memory").code, 0);
    EXPECT_EQ(on(0, "echo 'nv_read 1 on fail 5' > /tmp/faults").code, 0);
    const Ran failed = on(0, "KESTA_PLATFORM_FAULT_FILE=/tmp/faults kestactl nv read accept-name --from memory");
    EXPECT_EQ(failed.code, 4);
    EXPECT_EQ(ctl(1, "nv read accept-name --from memory").code, 0);
}

// ------------------------------------------------------------------------------ remote scripts

class LabRemote : public LabTest {
protected:
    // The steps of a script wait in tenths of a second. Here they don't.
    Ran run_script(const std::string &script) const
    {
        write_file(host_path(0, "opt/quick/sleep"), "#!/bin/sh\n");
        return on(0, "chmod +x /opt/quick/sleep; PATH=/opt/quick:$PATH /bin/sh " + script);
    }
    static constexpr const char *samefile = "/var/run/kesta_sys/tmp/kesta_rsh_samefile.sh";
    static constexpr const char *tarz = "/var/run/kesta_sys/tmp/kesta_rsh_tarz.sh";
};

TEST_F(LabRemote, CommandsReachTheOtherController)
{
    EXPECT_EQ(on(0, "/usr/bin/rsh -l vndrmnt CNT2 cat /etc/hostname").out, "cnt2\n");
    EXPECT_EQ(on(3, "/usr/bin/rsh -l vndrmnt CNT1 'exit 7'").code, 7);
    EXPECT_EQ(on(0, "pfexec su vndrmnt -c \"/usr/bin/rsh -l vndrmnt CNT1 pfexec touch /opt/x\"").code, 0);
    EXPECT_TRUE(fs::exists(host_path(1, "opt/x")));
    EXPECT_FALSE(fs::exists(host_path(0, "opt/x")));
}

TEST_F(LabRemote, FilesArriveWithOwnerModeAndTime)
{
    EXPECT_EQ(on(0,
                 "echo one > /etc/remote-one; echo two > /etc/remote-two; "
                 "touch -d '2001-02-03 04:05:06 UTC' /etc/remote-one /etc/remote-two; "
                 "chmod 600 /etc/remote-one; chown daemon /etc/remote-two")
                  .code,
              0);
    ASSERT_EQ(ctl(0, "script samefiles CNT1 /etc/remote-one /etc/remote-two").code, 0);
    const Ran ran = on(0, std::string("/bin/sh ") + samefile);
    EXPECT_EQ(ran.code, 0) << ran.err;
    EXPECT_EQ(on(1,
                 "cat /etc/remote-one /etc/remote-two; "
                 "TZ=UTC stat -c '%U:%G %a %y' /etc/remote-one /etc/remote-two")
                  .out,
              "one\ntwo\nroot:root 644 2001-02-03 04:05:06.000000000 +0000\n"
              "root:root 644 2001-02-03 04:05:06.000000000 +0000\n");
    EXPECT_FALSE(fs::exists(host_path(2, "etc/remote-one")));
}

TEST_F(LabRemote, AcceptedArchiveBecomesTheBackup)
{
    save_environment(1, "accept.tar.Z");
    save_environment(1, "backup.tar.Z");
    ASSERT_EQ(ctl(0, "script tarz CNT1").code, 0);
    const Ran ran = on(0, std::string("/bin/sh ") + tarz);
    EXPECT_EQ(ran.code, 0) << ran.err;
    const fs::path flash = host_path(1, "opt/kesta_sys/bakup");
    EXPECT_EQ(read_file(flash / "backup.tar.Z"), read_file(flash / "accept.tar.Z"));
    EXPECT_EQ(on(1, "stat -c %U /opt/kesta_sys/bakup/accept.tar.Z").out, "root\n");
    EXPECT_EQ(on(1, "stat -c %U /opt/kesta_sys/bakup/backup.tar.Z").out, "vndrmnt\n") << "left to the maintenance user";
}

TEST_F(LabRemote, StepThatFailsDoesNotEndTheScript)
{
    ASSERT_EQ(ctl(0, "script samefiles CNT1 /no/such/file").code, 0);
    EXPECT_EQ(run_script(samefile).code, 0) << "only a hang is found";
}

TEST_F(LabRemote, StepThatHangsIsKilledAndGivesItsCode)
{
    EXPECT_EQ(on(0, "echo x > /etc/remote-hang").code, 0);
    EXPECT_EQ(on(1, "mkfifo /etc/remote-hang").code, 0) << "the copy waits for a reader";
    ASSERT_EQ(ctl(0, "script samefiles CNT1 /etc/remote-hang").code, 0);
    EXPECT_EQ(run_script(samefile).code, 3);
}

TEST_F(LabRemote, ScriptsRefuseWhatCanNotBeSent)
{
    for (const std::string arguments :
         {"samefiles CNT1 relative", "samefiles CNT1 '/a b'", "samefiles CNT1 '/a;b'", "samefiles CNT0 /a",
          "samefiles CNT9 /a", "samefiles CNT1", "tarz", "tarz CNT0"}) {
        EXPECT_EQ(ctl(0, "script " + arguments).code, 2) << arguments;
    }
    EXPECT_EQ(ctl(0, "script tarz CNT1 --dry-run").code, 0);
    EXPECT_FALSE(fs::exists(host_path(0, "run/kesta_sys/tmp/kesta_rsh_tarz.sh")));
}

// A program with its owner's rights, started by a user who would like others to run.
TEST_F(Lab, CallerOfASetUserIdProgramDoesNotChooseWhatItRuns)
{
    fs::copy_file(std::string(KESTA_BIN_DIR) + "/environment_shower", host_path(0, "opt/shower"));
    // A shell function stands between others that go, and at the end.
    const std::string plain =
        "/usr/bin/env 'BASH_FUNC_tar%%=() { evil; }' 'BASH_FUNC_cp%%=() { evil; }' TAR_OPTIONS=--evil "
        "PERL5OPT=-mevil KESTA_PLATFORM_VPD_FILE=/evil "
        "BASH_ENV=/evil LANG=C PATH=/evil:/usr/bin 'BASH_FUNC_rm%%=() { evil; }' ";
    EXPECT_EQ(on(0, plain + "/opt/shower").out, "3 /evil:/usr/bin --evil /evil C -mevil /evil\n") << "the caller's own";
    if (geteuid() == 0) {
        const Ran shown =
            on(0,
               "mkdir /tmp/suid && mount -t tmpfs tmpfs /tmp/suid && cp /opt/shower /tmp/suid && "
               "chmod 4755 /tmp/suid/shower && " +
                   plain + "/usr/bin/setpriv --reuid 54321 --regid 54321 --clear-groups /tmp/suid/shower");
        EXPECT_EQ(shown.out, "0 /usr/sbin:/usr/bin:/sbin:/bin   C  \n") << shown.err;
    }
}
