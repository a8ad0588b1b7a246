// Threads that share the two libraries, with their connections: beside one another, beside a fork, and cancelled.
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "member_double.h"
#include "sanfwctl.h"
#include "sbacc.h"

namespace {

// The settings are read once in a process, so all tests share the members.
struct Members {
    test::StoreDouble store;
    std::array<test::MemberDouble, 2> all{test::MemberDouble(store), test::MemberDouble(store)};
};
Members *members;

int write_nv(std::string bytes, std::uint64_t offset)
{
    cpfw_nv_region_t region = 2;
    cpfw_nv_access_t access{bytes.data(), offset, bytes.size()};
    return zKTsanfwctl_write_nv(-1, &region, &access, 1);
}

bool nv_is(const std::string &expected, std::uint64_t offset)
{
    std::string bytes(expected.size(), '?');
    cpfw_nv_region_t region = 2;
    cpfw_nv_access_t access{bytes.data(), offset, bytes.size()};
    return zKTsanfwctl_read_nv(-1, &region, &access, 1) == 0 && bytes == expected;
}

int write_file(const std::string &name, const std::string &bytes)
{
    int handle = -1;
    int close_flag = -1;
    if (const int error = sbacc_open(name.c_str(), "w", &handle, &close_flag); error != 0) {
        return error;
    }
    const int written = sbacc_write(bytes.data(), static_cast<unsigned>(bytes.size()), 0, handle);
    const int closed = sbacc_close(handle);
    return written < 0 ? written : closed;
}

bool file_is(const std::string &name, const std::string &expected)
{
    int handle = -1;
    int close_flag = -1;
    if (sbacc_open(name.c_str(), "r", &handle, &close_flag) != 0) {
        return false;
    }
    std::string bytes(static_cast<std::size_t>(std::max(0, sbacc_read_size(handle))), '?');
    const int got = sbacc_read(bytes.data(), static_cast<unsigned>(bytes.size()), 0, handle);
    return sbacc_close(handle) == 0 && got == static_cast<int>(bytes.size()) && bytes == expected;
}

// One thread's work, at its own places: whether all of it is there.
bool work(unsigned number, unsigned rounds)
{
    const std::string name = "file" + std::to_string(number);
    bool right = true;
    for (unsigned round = 0; round < rounds && right; ++round) {
        const std::string bytes = std::to_string(1000000 + number * 1000 + round);
        const std::string contents = number % 2 == 0 ? bytes : std::string(70000, static_cast<char>('a' + round % 26));
        right = write_nv(bytes, 2048 + number * 64) == 0 && nv_is(bytes, 2048 + number * 64) &&
                (round % 4 != 0 || (write_file(name, contents) == 0 && file_is(name, contents)));
    }
    return right;
}

int connections() { return members->all[0].connections() + members->all[1].connections(); }

}  // namespace

TEST(EtcdThreads, ShareTheConnectionsAndMixNothingUp)
{
    ASSERT_TRUE(work(0, 1));
    const int before = connections();
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (unsigned number = 0; number < 4; ++number) {
        threads.emplace_back([&right, number] { right += work(number, 24) ? 1 : 0; });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(right, 4);
    EXPECT_EQ(connections(), before);
}

TEST(EtcdThreads, GoOnBesideForksAndSoDoTheChildren)
{
    std::atomic<bool> ended{false};
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (unsigned number = 0; number < 2; ++number) {
        threads.emplace_back([&ended, &right, number] {
            bool all = true;
            while (!ended) {
                all = work(number, 4) && all;
            }
            right += all ? 1 : 0;
        });
    }
    for (unsigned child_number = 0; child_number < 6; ++child_number) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(60);
            _exit(work(4, 4) ? 0 : 1);
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    ended = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(right, 2);
}

TEST(EtcdThreads, CancelledOnesLeaveNothingHeld)
{
    for (unsigned round = 0; round < 12; ++round) {
        static std::atomic<int> rounds_done;
        rounds_done = 0;
        pthread_t thread{};
        ASSERT_EQ(pthread_create(
                      &thread, nullptr,
                      [](void *) -> void * {
                          for (;;) {
                              EXPECT_TRUE(work(5, 1));
                              ++rounds_done;
                              pthread_testcancel();
                          }
                      },
                      nullptr),
                  0);
        while (rounds_done < 2) {
            EXPECT_TRUE(work(0, 1));
        }
        EXPECT_EQ(pthread_cancel(thread), 0);
        void *result = nullptr;
        ASSERT_EQ(pthread_join(thread, &result), 0);
        EXPECT_EQ(result, PTHREAD_CANCELED);
        EXPECT_TRUE(work(5, 1));
    }
}

int main(int argc, char **argv)
{
    setenv("KESTA_PLATFORM_CONF", "/nonexistent", 1);
    setenv("KESTA_PLATFORM_TRACE_TARGET", "stderr", 1);
    testing::InitGoogleTest(&argc, argv);
    members = new Members;
    setenv("KESTA_PLATFORM_NV_ENDPOINTS", (members->all[0].endpoint() + "," + members->all[1].endpoint()).c_str(), 1);
    const int result = RUN_ALL_TESTS();
    delete members;
    return result;
}
