// A lab over hosts: controllers and members of a cluster, each in a network of its own.
#include "lab_fixture.h"

using namespace test;
using testing::HasSubstr;

class LabHosts : public testing::Test {
protected:
    LabHosts()
    {
        std::string name = "/tmp/kesta-hosts-test-XXXXXX";
        if (!mkdtemp(name.data())) {
            abort();
        }
        home_ = name;
        // A transfer that nobody answers ends sooner; the library repeats it five times.
        setenv("KESTA_PLATFORM_TRANSFER_MS", "300", 1);
        setenv("KESTA_PLATFORM_REQUEST_MS", "150", 1);
        const Ran made = lab("create --hosts " + dir() + " --product " KESTA_LAB_PRODUCT);
        EXPECT_EQ(made.code, 0) << made.err;
    }
    ~LabHosts() override
    {
        const Ran gone = lab("destroy " + dir());
        EXPECT_EQ(gone.code, 0) << gone.err;
        EXPECT_EQ(shell("grep -lsz KESTA_LAB_DIR=" + dir() + " /proc/[0-9]*/environ | grep -v self").out, "");
        fs::remove_all(home_);
        unsetenv("KESTA_PLATFORM_TRANSFER_MS");
        unsetenv("KESTA_PLATFORM_REQUEST_MS");
    }

    std::string dir() const { return (home_ / "lab").string(); }
    Ran shell(const std::string &command) const
    {
        const std::string out = (home_ / "out").string();
        const std::string err = (home_ / "err").string();
        const int status = system(("( " + command + " ) > " + out + " 2> " + err + " < /dev/null").c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), read_file(out), read_file(err)};
    }
    Ran lab(const std::string &words) const { return shell(std::string(KESTA_BIN_DIR) + "/kesta-lab " + words); }
    Ran of_lab(const std::string &words) const { return lab("--dir " + dir() + " " + words); }
    Ran on(int controller, const std::string &command) const
    {
        return of_lab("exec CNT" + std::to_string(controller) + " -- /bin/sh -c " + quoted(command));
    }
    std::string members() const
    {
        const std::string status = of_lab("status").out;
        return status.substr(status.find("\nmember") + 1);
    }

private:
    fs::path home_;
};

TEST_F(LabHosts, EachHostHasANetworkOfItsOwnAndAllShareTheCluster)
{
    std::string networks;
    for (int n = 0; n < 4; ++n) {
        EXPECT_THAT(on(n, "ip -brief addr show eth0").out, HasSubstr("192.168.100.1" + std::to_string(n) + "/24"));
        const std::string own = on(n, "readlink /proc/self/ns/net").out;
        EXPECT_THAT(networks, testing::Not(HasSubstr(own)));
        networks += own;
    }
    EXPECT_EQ(on(1, "kestactl nv write group shared").code, 0);
    EXPECT_EQ(on(3, "kestactl nv read group").out, "shared\n");

    // A pulled cable: nothing of the cluster, and no other controller.
    ASSERT_EQ(of_lab("link CNT2 down").code, 0);
    EXPECT_EQ(on(2, "kestactl nv read group").code, 4);
    const Ran unreachable = on(0, "rsh -l vndrmnt CNT2 hostname");
    EXPECT_NE(unreachable.code, 0);
    EXPECT_THAT(unreachable.err, HasSubstr("no route to host"));
    EXPECT_EQ(on(0, "rsh -l vndrmnt CNT1 hostname").out, "cnt1\n");
    EXPECT_THAT(of_lab("status").out, HasSubstr("CNT2: the link is down"));
    ASSERT_EQ(of_lab("link CNT2 up").code, 0);
    EXPECT_EQ(on(2, "kestactl nv read group").out, "shared\n");
}

TEST_F(LabHosts, MembersEndHangAndComeBack)
{
    EXPECT_THAT(members(), HasSubstr("leads"));
    EXPECT_EQ(on(0, "kestactl nv write group one").code, 0);
    ASSERT_EQ(of_lab("member leader kill").code, 0);
    EXPECT_THAT(members(), HasSubstr("does not run"));
    std::string read;
    for (int i = 0; i < 100 && read != "one\n"; ++i) {  // until the two others have elected one of them
        read = on(1, "kestactl nv read group").out;
    }
    EXPECT_EQ(read, "one\n");

    // One more of three: no quorum, and that is told.
    const std::string runs = members();
    const std::size_t second = runs.find("runs");
    ASSERT_NE(second, std::string::npos) << runs;
    const std::string name = runs.substr(runs.rfind('\n', second) + 1, 7);
    ASSERT_EQ(of_lab("member " + name.substr(6) + " stop").code, 0);
    EXPECT_THAT(members(), HasSubstr("hangs"));
    EXPECT_EQ(on(1, "kestactl nv read group").code, 4);
    EXPECT_NE(of_lab("member " + name.substr(6) + " stop && " + KESTA_BIN_DIR + "/kesta-lab --dir " + dir() +
                     " member 9 start")
                  .code,
              0);

    // The power goes, and all comes back.
    ASSERT_EQ(of_lab("cut-power").code, 0);
    EXPECT_THAT(on(0, "true").err, HasSubstr("power-on"));
    const Ran on_again = of_lab("power-on");
    ASSERT_EQ(on_again.code, 0) << on_again.err;
    EXPECT_EQ(on(3, "kestactl nv read group").out, "one\n");
}

TEST_F(LabHosts, DisksFillAndBoardsAreSwapped)
{
    ASSERT_EQ(of_lab("fill CNT1").code, 0);
    EXPECT_NE(on(1, "cp /bin/true /opt/kesta_sys/bakup/new").code, 0);
    EXPECT_EQ(on(0, "cp /bin/true /opt/kesta_sys/bakup/new").code, 0);
    ASSERT_EQ(of_lab("fill CNT1 --undo").code, 0);
    EXPECT_EQ(on(1, "cp /bin/true /opt/kesta_sys/bakup/new").code, 0);
    ASSERT_EQ(of_lab("fill disk").code, 0);
    EXPECT_NE(on(3, "cp /bin/true /opt/kesta_sys/bakup/new").code, 0);
    ASSERT_EQ(of_lab("fill disk --undo").code, 0);

    EXPECT_EQ(on(0, "env_vpdctl -w sn 123 2> /dev/null; echo x > /opt/kesta_platform/vpd").code, 0);
    ASSERT_EQ(of_lab("swap-board CNT0").code, 0);
    EXPECT_NE(on(0, "cat /opt/kesta_platform/vpd").code, 0);
    EXPECT_THAT(of_lab("fill CNT7").err, HasSubstr("there is no controller CNT7"));
}
