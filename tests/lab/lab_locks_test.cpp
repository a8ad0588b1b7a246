// Holders of the inner lock that are killed in each phase, on the controllers of a lab. Waiters run
// with a clock that their waits move on.
#include <fcntl.h>
#include <unistd.h>

#include "lab_fixture.h"

using namespace test;
using testing::HasSubstr;
using testing::Not;

class LabLocks : public LabTest {
protected:
    LabLocks()
    {
        for (int n = 0; n < 4; ++n) {
            fs::copy_file(KESTA_FAST_CLOCK_LIBRARY, host_path(n, "opt/libfast_clock.so"));
        }
    }

    // Runs a command that needs the inner lock, with faults at its platform calls.
    Ran with_faults(int controller, const std::string &rules) const
    {
        write_file(host_path(controller, "opt/faults"), rules);
        return on(controller, "KESTA_PLATFORM_FAULT_FILE=/opt/faults kestactl nv write group " + std::string("cnt") +
                                  std::to_string(controller));
    }

    // Two reads of NV memory come before those of the inner lock: the command looks for the locks of others.
    bool slot_is_set(int controller) const
    {
        std::ifstream image(dir / "shared/nv/region2.img", std::ios::binary);
        image.seekg(600 + 16 * controller);
        return image.get() == 1;
    }

    // The next waiter gets the lock; how long it waited, in milliseconds of its clock.
    long wait_of(int controller) const
    {
        const Ran waited = on(controller,
                              "LD_PRELOAD=/opt/libfast_clock.so kestactl --trace 4 "
                              "nv write group after");
        EXPECT_EQ(waited.code, 0) << waited.err;
        EXPECT_EQ(ctl(3, "nv read group").out, "after\n");
        long retries = 0;
        const std::string line = "[kestal_cntl_innerlock] lock retry...(";
        for (std::size_t at = 0; (at = waited.err.find(line, at)) != std::string::npos; ++at) {
            ++retries;
        }
        return retries * (100 + 10 * controller);
    }

    // More than 30 seconds by a clock that counts whole ones, and not much more.
    void expect_cleared_after_its_time(int waiter) const
    {
        const long waited = wait_of(waiter);
        EXPECT_GT(waited, 30000);
        EXPECT_LE(waited, 32000);
        for (int n = 0; n < 4; ++n) {
            EXPECT_FALSE(slot_is_set(n)) << n;
        }
    }
};

TEST_F(LabLocks, FreeLockIsHadAtOnce) { EXPECT_EQ(wait_of(1), 0); }

TEST_F(LabLocks, HolderKilledAfterItsClaimIsClearedAfterItsTime)
{
    for (const int waiter : {0, 1}) {
        EXPECT_EQ(with_faults(0, "nv_read 4 once kill\n").code, 128 + 9) << "before its second look";
        EXPECT_TRUE(slot_is_set(0));
        expect_cleared_after_its_time(waiter);
    }
}

TEST_F(LabLocks, HolderKilledInItsSectionIsClearedAfterItsTime)
{
    EXPECT_EQ(with_faults(2, "nv_write 2 once kill\n").code, 128 + 9) << "before its own write";
    EXPECT_TRUE(slot_is_set(2));
    expect_cleared_after_its_time(3);
}

TEST_F(LabLocks, HolderKilledAtItsReleaseIsClearedAfterItsTime)
{
    EXPECT_EQ(with_faults(2, "nv_write 3 once kill\n").code, 128 + 9);
    EXPECT_TRUE(slot_is_set(2));
    EXPECT_EQ(ctl(3, "nv read group").out, "cnt2\n") << "its write was done";
    expect_cleared_after_its_time(0);
}

// CNT1 has looked, and stands before its claim; CNT0 claims, and stands before its second look; CNT1
// claims, finds CNT0, and is killed before it withdraws. CNT0 finds CNT1's claim, withdraws, waits,
// and clears it after its time.
TEST_F(LabLocks, HolderKilledWhileWithdrawingIsClearedAfterItsTime)
{
    write_file(host_path(1, "opt/faults"), "nv_write 1 once block /opt/gate\nnv_write 2 once kill\n");
    write_file(host_path(0, "opt/faults"), "nv_read 4 once block /opt/gate\n");
    const std::string enter = lab() + " --dir " + dir.string() + " exec ";
    const std::string act =
        " -- /bin/sh -c 'KESTA_PLATFORM_FAULT_FILE=/opt/faults "
        "LD_PRELOAD=/opt/libfast_clock.so kestactl --trace 5 nv write group x' "
        "< /dev/null 2> ";
    const std::string gate0 = host_path(0, "opt/gate").string();
    const std::string gate1 = host_path(1, "opt/gate").string();
    // A gate opens for writing when its process stands there, and lets it go on when it is closed.
    const Ran both = shell("mkfifo " + gate0 + " " + gate1 + "\n" +                                 //
                           enter + "CNT1" + act + (home / "err1").string() + " & one=$!\n" +        //
                           "exec 4> " + gate1 + "\n" +                                              //
                           enter + "CNT0" + act + (home / "err0").string() + " 4>&- & zero=$!\n" +  //
                           "exec 3> " + gate0 + "\n" +                                              //
                           "exec 4>&-\nwait $one\necho one $?\nexec 3>&-\nwait $zero\necho zero $?\n");
    EXPECT_EQ(both.out, "one 137\nDone: write 'x' to group\nzero 0\n") << both.err << read_file(home / "err0");
    const std::string err0 = read_file(home / "err0");
    EXPECT_THAT(err0, HasSubstr("InnerLock Control Check Error.(rtn=-173, rtnstatus=0)"));
    EXPECT_THAT(err0, HasSubstr("InnerLock Reset"));
    EXPECT_THAT(err0, HasSubstr("InnerLock Irrigal Unlocked(1)"));
    EXPECT_THAT(read_file(home / "err1"), HasSubstr("InnerLock Reset")) << "it was withdrawing";
    for (int n = 0; n < 4; ++n) {
        EXPECT_FALSE(slot_is_set(n)) << n;
    }
}

// CNT0's process stands in its attempt, stopped. Others of its controller pass it by after its time, those
// of other controllers don't wait for it at all; and it goes on as if nothing had been.
TEST_F(LabLocks, ProcessStoppedInItsAttemptDoesNotShutItsControllerOut)
{
    write_file(host_path(0, "opt/faults"), "nv_read 3 once block /opt/gate\n");
    const std::string gate = host_path(0, "opt/gate").string();
    const std::string pid = host_path(0, "opt/pid").string();
    const std::string enter = lab() + " --dir " + dir.string() + " exec ";
    const std::string waiter =
        " -- /bin/sh -c 'LD_PRELOAD=/opt/libfast_clock.so kestactl --trace 4 "
        "nv write group after' 2> ";
    const Ran both = shell("mkfifo " + gate + "\n" + enter +
                           "CNT0 -- /bin/sh -c 'echo $$ > /opt/pid; KESTA_PLATFORM_FAULT_FILE=/opt/faults "
                           "exec kestactl nv write group stopped' & stopped=$!\n"
                           "exec 3> " +
                           gate +
                           "\n"
                           "kill -STOP $(cat " +
                           pid + ")\n" + enter + "CNT0" + waiter + (home / "err0").string() + "\necho $?\n" + enter +
                           "CNT1" + waiter + (home / "err1").string() +
                           "\necho $?\n"
                           "kill -CONT $(cat " +
                           pid +
                           ")\n"
                           "exec 3>&-\nwait $stopped\necho $?\n");
    EXPECT_EQ(both.out,
              "Done: write 'after' to group\n0\nDone: write 'after' to group\n0\n"
              "Done: write 'stopped' to group\n0\n")
        << both.err << read_file(home / "err0");
    EXPECT_THAT(read_file(home / "err0"), HasSubstr("[kestal_cntl_innerlock] lock retry...(300)"));
    EXPECT_THAT(read_file(home / "err1"), Not(HasSubstr("lock retry")));
    for (int n = 0; n < 4; ++n) {
        EXPECT_FALSE(slot_is_set(n)) << n;
    }
}

TEST_F(LabLocks, SectionOfAWaiterIsItsOwnAgain)
{
    EXPECT_EQ(with_faults(0, "nv_read 4 once kill\n").code, 128 + 9);
    expect_cleared_after_its_time(1);
    EXPECT_EQ(wait_of(2), 0) << "nothing is left behind";
}
