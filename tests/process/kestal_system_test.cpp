#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <sstream>
#include <thread>
#include <utility>

#include "child_process.h"
#include "library_test.h"
#include "no_memory.h"
#include "text_lines.h"

#if defined(__SANITIZE_ADDRESS__)
#define KESTA_LEAKS_ARE_FOUND 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KESTA_LEAKS_ARE_FOUND 1
#endif
#endif
#if KESTA_LEAKS_ARE_FOUND
#include <sanitizer/lsan_interface.h>
#endif

using namespace test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

extern char **environ;

namespace {

constexpr const char *output_file = "/tmp/kesta_sys/out";

// The strings of a block.
std::vector<std::string> strings_of(char *block)
{
    std::vector<std::string> strings;
    for (char *text = blkstrhead(block); text; text = blkstrnext(text)) {
        strings.push_back(text);
    }
    return strings;
}

// Replaces the environment for the life of the object.
class Environment {
public:
    explicit Environment(int count, int from = 0)
    {
        for (int i = from; i < from + count; ++i) {
            texts_.push_back("N" + std::to_string(i) + "=v");
        }
        for (std::string &text : texts_) {
            pointers_.push_back(text.data());
        }
        pointers_.push_back(nullptr);
        environ = pointers_.data();
    }
    ~Environment() { environ = before_; }
    Environment(const Environment &) = delete;
    Environment &operator=(const Environment &) = delete;

private:
    char **before_ = environ;
    std::vector<std::string> texts_;
    std::vector<char *> pointers_;
};

// Reaps a child that a test has started itself.
class Child {
public:
    Child(const std::string &command, char *block = nullptr) { EXPECT_EQ(prcfork(command.c_str(), block, &pid), 0); }
    ~Child()
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            wait();
        }
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    int wait()
    {
        int status = -1;
        const pid_t child = std::exchange(pid, -1);
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return status;
    }
    void reaped() { pid = -1; }

    pid_t pid = -1;
};

void ignored(int) {}

// The leak sanitizer looks away for the life of the object.
class ExpectedLeak {
public:
#if KESTA_LEAKS_ARE_FOUND
    ExpectedLeak() { __lsan_disable(); }
    ~ExpectedLeak() { __lsan_enable(); }
#else
    ExpectedLeak() {}
    ~ExpectedLeak() {}
#endif
    ExpectedLeak(const ExpectedLeak &) = delete;
    ExpectedLeak &operator=(const ExpectedLeak &) = delete;
};

}  // namespace

class System : public LibraryTest {
protected:
    System()
    {
        // Sleeping is real here: the child runs in real time.
        p().before_call = [](const std::string &call) {
            if (call.rfind("usleep", 0) == 0) {
                struct timespec a_little {
                    0, 1'000'000
                };
                nanosleep(&a_little, nullptr);
            }
        };
    }
    // Runs a command to its end and gives what it printed.
    std::vector<std::string> printed(const std::string &command)
    {
        EXPECT_EQ(kestal_system(("exec > " + std::string(output_file) + "; " + command).c_str(), "event", "status",
                                &status),
                  0);
        return lines_of(read_file(output_file));
    }
    int status = -1;
};

TEST_F(System, StatusIsTheRawWaitStatus)
{
    EXPECT_EQ(kestal_system("exit 3", "e", "s", &status), 0);
    EXPECT_EQ(status, 3 << 8);
    EXPECT_EQ(kestal_system("kill -9 $$", "e", "s", &status), 0);
    EXPECT_EQ(status, 9);
    EXPECT_EQ(kestal_system("", "e", "s", &status), 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(kestal_system("no_such_command_here 2> /dev/null", "e", "s", &status), 0);
    EXPECT_EQ(status, 127 << 8);
    EXPECT_THAT(p().texts(4), Contains(" >>>>> args(exit 3) starting..."));
    EXPECT_THAT(p().texts(1), IsEmpty());
}

TEST_F(System, PollsEveryTenthOfASecondUntilTheChildEnds)
{
    // The child waits for a byte that comes with the third sleep.
    ASSERT_EQ(mkfifo("/tmp/kesta_sys/go", 0600), 0);
    const int fifo = ::open("/tmp/kesta_sys/go", O_RDWR | O_CLOEXEC);
    int sleeps = 0;
    p().before_call = [&](const std::string &call) {
        if (call.rfind("usleep", 0) == 0) {
            if (++sleeps == 3) {
                EXPECT_EQ(::write(fifo, "\n", 1), 1);
            }
            struct timespec a_little {
                0, 1'000'000
            };
            nanosleep(&a_little, nullptr);
        }
    };
    EXPECT_EQ(kestal_system("read x < /tmp/kesta_sys/go; exit 4", "e", "s", &status), 0);
    EXPECT_EQ(status, 4 << 8);
    EXPECT_GE(sleeps, 3);
    EXPECT_EQ(p().calls_of("usleep 100000").size(), static_cast<std::size_t>(sleeps));
    EXPECT_EQ(p().calls_of("usleep").size(), static_cast<std::size_t>(sleeps));
    close(fifo);
}

TEST_F(System, ChildSeesTheTwoVariablesAfterTheInheritedOnes)
{
    std::vector<std::string> seen = printed("tr '\\0' '\\n' < /proc/$$/environ");
    ASSERT_GE(seen.size(), 2u);
    EXPECT_EQ(seen[seen.size() - 2], "KESTA_EVENT=event");
    EXPECT_EQ(seen[seen.size() - 1], "KESTA_VRBGETSTAT=status");
    std::size_t i = 0;
    for (char **variable = environ; *variable; ++variable, ++i) {
        EXPECT_EQ(seen[i], *variable);
    }
}

TEST_F(System, LongValuesArriveCutAt63Characters)
{
    const std::string value(100, 'v');
    const std::string command = "echo \"$KESTA_EVENT\" \"$KESTA_VRBGETSTAT\" > " + std::string(output_file);
    EXPECT_EQ(kestal_system(command.c_str(), value.c_str(), value.c_str(), &status), 0);
    EXPECT_EQ(read_file(output_file), value.substr(0, 63 - 12) + " " + value.substr(0, 63 - 17) + "\n");
}

TEST_F(System, NullTextsReadAsTheyPrint)
{
    const std::string command = "echo \"$KESTA_EVENT\" \"$KESTA_VRBGETSTAT\" > " + std::string(output_file);
    EXPECT_EQ(kestal_system(command.c_str(), nullptr, nullptr, &status), 0);
    EXPECT_EQ(read_file(output_file), "(null) (null)\n");
}

TEST_F(System, EnvironmentOf509StringsPassesAndOneMoreIsRefused)
{
    {
        Environment environment(509);
        EXPECT_EQ(kestal_system("exit $((${N508:+1}))", "e", "s", &status), 0);
        EXPECT_EQ(status, 1 << 8);
    }
    {
        Environment environment(510);
        EXPECT_EQ(kestal_system("exit 0", "e", "s", &status), -1);
    }
    EXPECT_THAT(p().texts(1), ElementsAre("[prcfork] too many envs(512).", "[system] prcfork_siginit END errno=12"));
}

TEST_F(System, EmptyEnvironment)
{
    Environment environment(0);
    EXPECT_EQ(kestal_system("/usr/bin/tr '\\0' '\\n' < /proc/$$/environ > /tmp/kesta_sys/out", "e", "s", &status), 0);
    EXPECT_THAT(lines_of(read_file(output_file)), ElementsAre("KESTA_EVENT=e", "KESTA_VRBGETSTAT=s"));
}

TEST_F(System, OnlyTheStandardDescriptorsAreOpenInTheChild)
{
    std::vector<int> opened;
    for (int i = 0; i < 40; ++i) {
        opened.push_back(::open("/dev/null", O_RDONLY));  // not close-on-exec
    }
    const int far = fcntl(opened[0], F_DUPFD, 900);
    ASSERT_GE(far, 900);
    // The shell lists its own descriptors: 0, 1, 2, and the one of the listing.
    const std::vector<std::string> seen = printed("for f in /proc/$$/fd/*; do echo ${f##*/}; done");
    EXPECT_THAT(seen, testing::IsSubsetOf({"0", "1", "2", "3"}));
    EXPECT_THAT(seen, testing::IsSupersetOf({"0", "1", "2"}));
    close(far);
    for (const int fd : opened) {
        close(fd);
    }
}

TEST_F(System, SignalsAreAtTheirDefaultAndUnblockedInTheChild)
{
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    for (const int s : {SIGUSR1, SIGTERM, SIGCHLD, SIGHUP}) {
        sigaddset(&blocked, s);
    }
    sigprocmask(SIG_BLOCK, &blocked, &before);
    struct sigaction ignore {};
    struct sigaction saved_pipe {};
    struct sigaction saved_usr2 {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &saved_pipe);
    ignore.sa_handler = ignored;
    sigaction(SIGUSR2, &ignore, &saved_usr2);

    const std::vector<std::string> seen = printed("grep -E '^Sig(Blk|Ign|Cgt)' /proc/self/status");
    constexpr unsigned long ordinary = 0x7fffffffUL;  // 1 to 31
    for (const std::string &line : seen) {
        if (line.rfind("SigBlk", 0) == 0 || line.rfind("SigIgn", 0) == 0) {
            EXPECT_EQ(std::stoul(line.substr(8), nullptr, 16) & ordinary, 0u) << line;
        }
    }
    EXPECT_EQ(seen.size(), 3u);
    // The parent's own are as before.
    sigset_t now;
    sigprocmask(SIG_SETMASK, nullptr, &now);
    EXPECT_EQ(sigismember(&now, SIGUSR1), 1);
    EXPECT_EQ(sigismember(&now, SIGINT), 0);
    struct sigaction kept {};
    sigaction(SIGUSR2, nullptr, &kept);
    EXPECT_EQ(kept.sa_handler, ignored);
    sigaction(SIGPIPE, &saved_pipe, nullptr);
    sigaction(SIGUSR2, &saved_usr2, nullptr);
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(System, ChildLeadsAProcessGroupOfItsOwn)
{
    const std::vector<std::string> seen = printed("echo $$; cut -d ' ' -f 5 /proc/$$/stat");
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0], seen[1]);
    EXPECT_NE(seen[0], std::to_string(getpgrp()));
}

TEST_F(System, FailuresOfTheBlock)
{
    p().fail_kind("alloc", 0, 1);
    EXPECT_EQ(kestal_system("true", "e", "s", &status), -1);
    EXPECT_EQ(p().count("[blkenvalloc] MALLOC("), 1);
    EXPECT_TRUE(p().traced(1, "[alloc_envblk] blkenvalloc ERROR errno=12"));
    EXPECT_EQ(p().count(" >>>>> args"), 0);
    p().traces.clear();
    // The second allocation: the copy of the environment stays behind, which leaks it.
    const ExpectedLeak leak;
    char *block = nullptr;
    p().fail_kind("alloc", 1, 1);
    EXPECT_EQ(kestal_alloc_envblk(&block, "e", "s"), -1);
    EXPECT_EQ(block, nullptr);
    EXPECT_THAT(p().texts(1), ElementsAre("[alloc_envblk] malloc ERROR errno=12"));
}

TEST_F(System, FailedForkIsReported)
{
    // No further process for an ordinary user.
    const pid_t child = fork();
    if (child == 0) {
        struct rlimit none {
            0, 0
        };
        bool good = setrlimit(RLIMIT_NPROC, &none) == 0 && setresuid(65534, 65534, 65534) == 0;
        good = good && kestal_system("true", "e", "s", &status) == -1;
        good = good && p().traced(1, "[prcfork] fork() failed(11).") &&
               p().traced(1, "[system] prcfork_siginit END errno=11");
        _exit(good ? 0 : 1);
    }
    int exit_status = -1;
    ASSERT_EQ(waitpid(child, &exit_status, 0), child);
    if (geteuid() == 0) {
        EXPECT_EQ(exit_status, 0);
    }
}

TEST_F(System, NoMemoryForTheChildsStackIsAFailedFork)
{
    if (!memory_can_be_limited) {
        GTEST_SKIP() << "a sanitizer ends the process instead";
    }
    pid_t child = 0;
    int result;
    {
        const NoMoreMemory limit;
        result = prcfork("true", nullptr, &child);
    }
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(p().traced(1, "[prcfork] fork() failed(12)."));
}

TEST_F(System, FailedWaitIsReported)
{
    p().fail_kind("waitpid", 0, 1);
    p().fault_errno = 10;
    EXPECT_EQ(kestal_system("true", "e", "s", &status), -1);
    EXPECT_EQ(p().count("[system] waitpid("), 1);
    EXPECT_EQ(p().texts(1).front().substr(p().texts(1).front().find(')')), ") error. errno=10");
    while (waitpid(-1, nullptr, 0) > 0) {
    }
}

TEST_F(System, NullArgumentsAreRefused)
{
    EXPECT_EQ(kestal_system(nullptr, "e", "s", &status), -931);
    EXPECT_EQ(kestal_system("true", "e", "s", nullptr), -931);
    EXPECT_EQ(kestal_alloc_envblk(nullptr, "e", "s"), -931);
    EXPECT_EQ(kestal_exec_cmd_by_system(nullptr), -931);
    EXPECT_EQ(p().texts(1).size(), 4u);
    kestal_free_envblk(nullptr);
}

TEST_F(System, ManyThreadsAtOnceGetTheirOwnChildren)
{
    std::vector<std::thread> threads;
    std::array<int, 8> statuses{};
    for (std::size_t i = 0; i < statuses.size(); ++i) {
        threads.emplace_back([i, &statuses] {
            for (int round = 0; round < 5; ++round) {
                int own = -1;
                if (kestal_system(("exit " + std::to_string(i + 1)).c_str(), "e", "s", &own) != 0 ||
                    own != static_cast<int>((i + 1) << 8)) {
                    statuses[i] = -1;
                }
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_THAT(statuses, testing::Each(0));
}

// ---------------------------------------------------------------- exec_cmd_by_system

TEST_F(System, ExecCmdGivesTheExitCode)
{
    p().run_system = true;
    EXPECT_EQ(kestal_exec_cmd_by_system("true"), 0);
    EXPECT_EQ(kestal_exec_cmd_by_system("exit 3"), 3);
    EXPECT_EQ(kestal_exec_cmd_by_system("exit 255"), 255);
    EXPECT_EQ(kestal_exec_cmd_by_system(""), 0);
    EXPECT_THAT(p().traces, IsEmpty());
}

TEST_F(System, ExecCmdEndedByASignalOrNeverStarted)
{
    p().run_system = true;
    EXPECT_EQ(kestal_exec_cmd_by_system("kill -9 $$"), -1);
    EXPECT_THAT(p().texts(1), ElementsAre("[exec_cmd_by_system] Failed to exec cmd=kill -9 $$. result=9"));
    p().traces.clear();
    p().fail_kind("system");
    EXPECT_EQ(kestal_exec_cmd_by_system("true"), -1);
    EXPECT_THAT(p().texts(1), ElementsAre("[exec_cmd_by_system] Failed to exec cmd=true. result=-1"));
}

// ---------------------------------------------------------------- the environment block

TEST_F(System, BlockHoldsTheEnvironmentAndTheTwoVariables)
{
    Environment environment(2);
    char *block = nullptr;
    ASSERT_EQ(kestal_alloc_envblk(&block, "ev", "st"), 0);
    const std::string expected("N0=v\0N1=v\0KESTA_EVENT=ev\0KESTA_VRBGETSTAT=st\0\0", 46);
    EXPECT_EQ(blksize(block), 46);
    EXPECT_EQ(std::string(block, 46), expected);
    EXPECT_EQ(blkstrnum(block), 4);
    EXPECT_THAT(strings_of(block), ElementsAre("N0=v", "N1=v", "KESTA_EVENT=ev", "KESTA_VRBGETSTAT=st"));
    kestal_free_envblk(block);
}

TEST_F(System, BlockFunctionsOnEmptyAndGrowingBlocks)
{
    char block[64];
    memset(block, 'x', sizeof(block));
    block[0] = block[1] = '\0';
    EXPECT_EQ(blksize(block), 2);
    EXPECT_EQ(blkstrnum(block), 0);
    EXPECT_EQ(blkstrhead(block), nullptr);
    blkstrcat(block, "A=1");
    EXPECT_EQ(std::string(block, 6), std::string("A=1\0\0x", 6));
    EXPECT_EQ(blksize(block), 5);
    blkstrcat(block, "BB=22");
    EXPECT_EQ(std::string(block, 11), std::string("A=1\0BB=22\0\0", 11));
    EXPECT_EQ(blkstrnum(block), 2);
    char copy[64];
    memset(copy, 'y', sizeof(copy));
    blkcpy(copy, block);
    EXPECT_EQ(std::string(copy, 12), std::string("A=1\0BB=22\0\0y", 12));
}

// ---------------------------------------------------------------- prcfork, prckill

TEST_F(System, ChildWithoutBlockInheritsTheEnvironment)
{
    setenv("INHERITED", "yes", 1);
    Child child("test \"$INHERITED\" = yes && exit 6");
    EXPECT_EQ(child.wait(), 6 << 8);
    unsetenv("INHERITED");
}

TEST_F(System, KillReapsAChildThatObeys)
{
    Child child("exec sleep 1000");
    // Virtual time stands still until the signal has done its work, however busy the machine is.
    p().before_call = [&child](const std::string &call) {
        if (call.rfind("usleep", 0) == 0) {
            siginfo_t ended;
            ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child.pid), &ended, WEXITED | WNOWAIT), 0);
        }
    };
    EXPECT_EQ(prckill(child.pid), 0);
    p().before_call = nullptr;
    EXPECT_THAT(p().texts(1), ElementsAre("[prcfork] kill(" + std::to_string(child.pid) + ",SIGTERM) success."));
    child.reaped();
}

TEST_F(System, KillOfAStubbornChildUsesSigkillAfterFourPolls)
{
    ASSERT_EQ(mkfifo("/tmp/kesta_sys/ready", 0600), 0);
    ASSERT_EQ(mkfifo("/tmp/kesta_sys/never", 0600), 0);
    Child child("trap '' TERM; echo > /tmp/kesta_sys/ready; read x < /tmp/kesta_sys/never");
    EXPECT_EQ(read_file("/tmp/kesta_sys/ready"), "\n");  // the trap is set
    const std::string number = std::to_string(child.pid);
    p().calls.clear();
    const int result = prckill(child.pid);
    EXPECT_EQ(p().calls_of("usleep 100000").size(), 4u);
    EXPECT_EQ(p().calls_of("waitpid").size(), 5u) << "one more at once after SIGKILL";
    if (result == 0) {
        EXPECT_THAT(p().texts(1), ElementsAre("[prcfork] kill(" + number + ",SIGKILL) success."));
        child.reaped();
    } else {
        EXPECT_THAT(p().texts(1), ElementsAre("[prcfork] process(" + number + ") not stopped."));
    }
}

TEST_F(System, KillOfNobodyFails)
{
    pid_t gone = fork();
    if (gone == 0) {
        _exit(0);
    }
    ASSERT_EQ(waitpid(gone, nullptr, 0), gone);
    EXPECT_EQ(prckill(gone), -1);
    EXPECT_THAT(p().texts(1), ElementsAre("[prcfork] kill(" + std::to_string(gone) + ",SIGTERM) failed(3)."));
}

TEST_F(System, KillReportsAFailedWait)
{
    Child child("exec sleep 1000");
    p().fail_kind("waitpid", 0, 1);
    p().fault_errno = 10;
    EXPECT_EQ(prckill(child.pid), -1);
    EXPECT_THAT(p().texts(1), ElementsAre("[prcfork] waitpid(" + std::to_string(child.pid) + ") failed(10)."));
}

TEST_F(System, FdcloseClosesEverythingAboveTwo)
{
    const pid_t child = fork();
    if (child == 0) {
        for (int i = 0; i < 300; ++i) {
            (void)::open("/dev/null", O_RDONLY);
        }
        fdclose();
        bool good = fcntl(0, F_GETFD) >= 0 && fcntl(1, F_GETFD) >= 0 && fcntl(2, F_GETFD) >= 0;
        for (int fd = 3; fd < 400; ++fd) {
            good = good && fcntl(fd, F_GETFD) < 0;
        }
        _exit(good ? 0 : 1);
    }
    int exit_status = -1;
    ASSERT_EQ(waitpid(child, &exit_status, 0), child);
    EXPECT_EQ(exit_status, 0);
}
