#include "lab_fixture.h"

using namespace test;
using testing::HasSubstr;

class Lab : public LabTest {};

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
    EXPECT_EQ(on(0, "echo x > /tmp/x && /usr/sbin/tar -C /tmp -cf /tmp/x.tar x && "
                    "/usr/bin/bunzip2 --help > /dev/null 2>&1; test -x /usr/sbin/cpinfo")
                  .code,
              0);
    EXPECT_EQ(on(0, "test -d /opt/kesta_sys/bakup -a -d /tmp/kesta_sys/tmp -a "
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
          lab() + " --dir " + home.string() + " exec CNT0 -- true",
          lab() + " destroy " + home.string()}) {
        const Ran refused = shell(command);
        EXPECT_NE(refused.code, 0) << command;
        EXPECT_FALSE(refused.err.empty()) << command;
    }
    EXPECT_TRUE(fs::exists(dir)) << "a folder that is no lab is not removed";
    EXPECT_TRUE(fs::exists(home));
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
    const Ran failed =
        on(0, "KESTA_PLATFORM_FAULT_FILE=/tmp/faults kestactl nv read accept-name --from memory");
    EXPECT_EQ(failed.code, 4);
    EXPECT_EQ(ctl(1, "nv read accept-name --from memory").code, 0);
}
