// The two libraries as a program has them: settings, fork, and threads that are cancelled.
#include <errno.h>
#include <execinfo.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <functional>
#include <iterator>
#include <thread>

#include "cluster_double.h"
#include "sanfwctl.h"
#include "sbacc.h"

using namespace test;

namespace {

// The settings are read once in a process, so all tests share the members.
struct Members {
    StoreDouble store;
    std::array<MemberDouble, 3> all{MemberDouble(store), MemberDouble(store), MemberDouble(store)};

    int connections() const { return all[0].connections() + all[1].connections() + all[2].connections(); }
};
Members *members;

int write_nv(std::string bytes, std::uint64_t offset = 0)
{
    cpfw_nv_region_t region = 2;
    cpfw_nv_access_t access{bytes.data(), offset, bytes.size()};
    return zKTsanfwctl_write_nv(-1, &region, &access, 1);
}

std::string read_nv(std::size_t size)
{
    std::string bytes(size, '?');
    cpfw_nv_region_t region = 2;
    cpfw_nv_access_t access{bytes.data(), 0, size};
    const int result = zKTsanfwctl_read_nv(-1, &region, &access, 1);
    return result == 0 ? bytes : "(" + std::to_string(result) + ")";
}

int write_file(const char *name, const std::string &bytes)
{
    int handle = -1;
    int close_flag = -1;
    const int opened = sbacc_open(name, "w", &handle, &close_flag);
    const int written =
        opened == 0 ? sbacc_write(bytes.data(), static_cast<unsigned>(bytes.size()), 0, handle) : opened;
    const int closed = opened == 0 ? sbacc_close(handle) : opened;
    return written < 0 ? written : closed;
}

int told_at = -1;  // where a child that hangs says in which function

void tell_where(int /*signal*/)
{
    std::array<void *, 40> frames;
    backtrace_symbols_fd(frames.data(), backtrace(frames.data(), static_cast<int>(frames.size())), told_at);
    _exit(9);
}

// The exit code of a body in a child; its traces go to the file. One that hangs says where, and ends with 9.
int in_child(const std::function<bool()> &body, const std::string &traces = "/dev/null")
{
    const pid_t child = fork();
    if (child == 0) {
        told_at = dup(STDERR_FILENO);
        (void)signal(SIGALRM, tell_where);
        alarm(60);
        (void)(freopen(traces.c_str(), "w", stderr) != nullptr);
        _exit(body() ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string traces_of(const std::function<bool()> &body)
{
    const std::string path = "/tmp/kesta-etcd-traces-" + std::to_string(getpid());
    EXPECT_EQ(in_child(body, path), 0);
    std::ifstream file(path);
    std::string text((std::istreambuf_iterator<char>(file)), {});
    unlink(path.c_str());
    return text;
}

}  // namespace

// The first test: the parent has read no settings yet.
TEST(EtcdLibraries, AWrongSettingIsOneClearSentence)
{
    const struct {
        const char *key;
        const char *value;
        const char *sentence;
    } wrong[] = {
        {"KESTA_PLATFORM_NV_ENDPOINTS", "", "nv_endpoints is not set: name the members of the cluster"},
        {"KESTA_PLATFORM_NV_ENDPOINTS", "10.0.0.1", "\"10.0.0.1\" is not of the form ADDRESS:PORT"},
        {"KESTA_PLATFORM_NV_ENDPOINTS", "10.0.0.1:2379,", "\"\" is not of the form ADDRESS:PORT"},
        {"KESTA_PLATFORM_NV_ENDPOINTS", "::1:2379", "an IPv6 address stands in brackets"},
        {"KESTA_PLATFORM_ETCD_PREFIX", "kesta", "etcd_prefix can't be used"},
        {"KESTA_PLATFORM_TLS_CA", "/ca.crt", "to be set all three, or none of them"},
    };
    for (const auto &each : wrong) {
        const std::string traces = traces_of([&] {
            setenv(each.key, each.value, 1);
            return write_nv("x") == -EINVAL && write_nv("x") == -EINVAL && write_file("name", "x") == -EINVAL;
        });
        EXPECT_THAT(traces, testing::HasSubstr(each.sentence));
        EXPECT_EQ(std::count(traces.begin(), traces.end(), '\n'), 2) << "once for each library: " << traces;
    }
}

TEST(EtcdLibraries, AnotherLayoutIsRefused)
{
    members->store.put("/other/layout", "2");
    const std::string traces = traces_of([] {
        setenv("KESTA_PLATFORM_ETCD_PREFIX", "/other/", 1);
        return write_nv("x") == -ENOTSUP && read_nv(1) == "(" + std::to_string(-ENOTSUP) + ")";
    });
    EXPECT_THAT(traces, testing::HasSubstr("/other/layout has another layout than 1"));
}

TEST(EtcdLibraries, ChildAndParentGoOnAfterAFork)
{
    ASSERT_EQ(write_nv("parent"), 0);
    ASSERT_EQ(write_file("name", "parent"), 0);
    const int before = members->connections();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(in_child([] { return write_nv("child!") == 0 && write_file("name", "child!") == 0; }), 0);
        EXPECT_EQ(read_nv(6), "child!");
        ASSERT_EQ(write_nv("parent"), 0);
        ASSERT_EQ(write_file("name", "parent"), 0);
    }
    EXPECT_EQ(members->connections(), before + 3 * 2) << "the parent keeps its connections";
}

TEST(EtcdLibraries, ChildOfAHolderIsNotTheHolder)
{
    const std::string claim("\1\0\0\0\0\0\0\0\x11\0\0\0\0\0\0\0", 16);
    ASSERT_EQ(write_nv(claim, etcd::first_slot), 0);
    etcd::ClusterSettings settings;
    std::string why;
    ASSERT_TRUE(etcd::parse_endpoints(members->all[0].endpoint(), settings.endpoints, why));
    Writer other(settings);
    ASSERT_EQ(other.read(etcd::first_slot, 16), claim);
    ASSERT_EQ(other.write(etcd::first_slot, std::string(16, '\0')), 0);
    EXPECT_EQ(in_child([] { return write_nv("child!") == 0; }), 0);
    EXPECT_EQ(write_nv("holder"), -ESTALE);
    EXPECT_EQ(write_nv(std::string(16, '\0'), etcd::first_slot), 0);
}

TEST(EtcdLibraries, ForkBesideTheFirstCallOfAllLeavesTheChildNothingTaken)
{
    for (MemberDouble &member : members->all) {
        member.order({"", Fate::unheard, 0, "", true});
    }
    EXPECT_EQ(in_child([&] {
                  execl("/proc/self/exe", "etcd_libraries_test", "--first-call", members->all[0].endpoint().c_str(),
                        nullptr);
                  return false;
              }),
              0);
    for (MemberDouble &member : members->all) {
        member.heal();
    }
}

TEST(EtcdLibraries, CancelledThreadEndsItsTransferAndLeavesNothingHeld)
{
    ASSERT_EQ(write_nv("before"), 0);
    for (MemberDouble &member : members->all) {
        member.order({"", Fate::unheard, 0, "", true});
    }
    static std::atomic<bool> inside{false};
    pthread_t thread{};
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void *) -> void * {
                      inside = true;
                      EXPECT_EQ(write_nv("during"), -ETIMEDOUT);
                      pthread_testcancel();
                      return nullptr;
                  },
                  nullptr),
              0);
    while (!inside) {
    }
    (void)pthread_cancel(thread);
    void *result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    for (MemberDouble &member : members->all) {
        member.heal();
    }
    EXPECT_EQ(write_nv("after!"), 0);
    EXPECT_EQ(read_nv(6), "after!");
}

TEST(EtcdLibraries, FaultsOnDemandAreMet)
{
    const std::string path = "/tmp/kesta-etcd-faults-" + std::to_string(getpid());
    std::ofstream(path) << "nv_write 1 once fail 28\nsb_write 1 once short 2\nsb_close 2 once fail 5\n";
    EXPECT_EQ(in_child([&] {
                  setenv("KESTA_PLATFORM_FAULT_FILE", path.c_str(), 1);
                  // The settings were read before: a program anew.
                  execl("/proc/self/exe", "etcd_libraries_test", "--faults", members->all[0].endpoint().c_str(),
                        nullptr);
                  return false;
              }),
              0);
    unlink(path.c_str());
}

namespace {

bool in_a_transfer()
{
    struct stat what {};
    for (int fd = STDERR_FILENO + 1; fd < 64; ++fd) {
        if (fstat(fd, &what) == 0 && S_ISSOCK(what.st_mode)) {
            return true;
        }
    }
    return false;
}

// Runs when a fork has begun: a thread makes the process's first call, which no member answers.
void begin_the_first_call()
{
    std::thread([] { (void)write_nv("first!"); }).detach();
    while (!in_a_transfer()) {
    }
}

int fork_beside_the_first_call()
{
    (void)pthread_atfork(begin_the_first_call, nullptr, nullptr);
    const pid_t child = fork();
    if (child == 0) {
        alarm(60);  // it would wait for ever
        _exit(write_nv("child!") == -ETIMEDOUT ? 0 : 1);
    }
    int status = -1;
    return waitpid(child, &status, 0) == child && status == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv)
{
    setenv("KESTA_PLATFORM_CONF", "/nonexistent", 1);
    setenv("KESTA_PLATFORM_TRACE_TARGET", "stderr", 1);
    setenv("KESTA_PLATFORM_TRANSFER_MS", "1500", 1);
    setenv("KESTA_PLATFORM_REQUEST_MS", "300", 1);
    if (argc == 3 && std::string(argv[1]) == "--faults") {
        setenv("KESTA_PLATFORM_NV_ENDPOINTS", argv[2], 1);
        return write_nv("x") == -ENOSPC && write_nv("x") == 0 && write_file("f", "abc") == -EIO &&
                       write_file("f", "abc") == -EIO && write_file("f", "abc") == 0
                   ? 0
                   : 1;
    }
    if (argc == 3 && std::string(argv[1]) == "--first-call") {
        setenv("KESTA_PLATFORM_NV_ENDPOINTS", argv[2], 1);
        return fork_beside_the_first_call();
    }
    testing::InitGoogleTest(&argc, argv);
    members = new Members;
    setenv("KESTA_PLATFORM_NV_ENDPOINTS",
           (members->all[0].endpoint() + "," + members->all[1].endpoint() + "," + members->all[2].endpoint()).c_str(),
           1);
    const int result = RUN_ALL_TESTS();
    delete members;
    return result;
}
