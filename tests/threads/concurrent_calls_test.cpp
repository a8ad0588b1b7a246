// Many threads of one process in the library at once. Runs under the thread sanitizer too.
#include <atomic>
#include <chrono>
#include <thread>

#include "controller_state.h"
#include "library_test.h"
#include "tracked_allocation.h"

using namespace test;

// --wrap is for what the library itself allocates.
extern "C" {
void *__real_kestal_calloc_debug(int count, int size, const char *file, int line, int debug);
void *__real_kestal_realloc_debug(char *ptr, int size, const char *file, int line, int debug);
}

namespace {

constexpr int thread_count = 4;

template <typename Work>
void in_threads(Work work)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < thread_count; ++i) {
        threads.emplace_back(work, i);
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

}  // namespace

class ConcurrentCalls : public LibraryTest {};

TEST_F(ConcurrentCalls, InnerLockSectionsOfOneProcessNeverOverlap)
{
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    p().wall_seconds = 1;     // the same token for all
    p().clock_stands = true;  // or the waiters would count the holder as stalled
    p().before_call = [](const std::string &call) {
        if (call.rfind("usleep", 0) == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    };
    in_threads([&](int) {
        for (int round = 0; round < 25; ++round) {
            ASSERT_EQ(kestal_cntl_innerlock(0), 0);
            overlaps += inside.fetch_add(1) != 0;
            std::this_thread::yield();
            inside.fetch_sub(1);
            ASSERT_EQ(kestal_reset_mycnt_innerlock_main(0, 0), 0);
        }
    });
    EXPECT_EQ(overlaps, 0);
    EXPECT_TRUE(inner_lock_is_free());
}

TEST_F(ConcurrentCalls, OneNvTransferAtATime)
{
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    p().before_call = [&](const std::string &call) {
        if (call.rfind("nv_", 0) == 0) {
            overlaps += inside.fetch_add(1) != 0;
            std::this_thread::yield();
            inside.fetch_sub(1);
        }
    };
    in_threads([&](int thread) {
        for (int round = 0; round < 200; ++round) {
            int value = thread;
            ASSERT_EQ(kestal_non_volatile_rw_memory(51, round % 2 + 1, &value, sizeof(value)), 0);
        }
    });
    EXPECT_EQ(overlaps, 0);
}

TEST_F(ConcurrentCalls, AccessModeChangesWhileBlocksAreRead)
{
    use_slots();
    in_threads([&](int thread) {
        char name[32];
        for (int round = 0; round < 100; ++round) {
            if (thread == 0) {
                kestal_rw_set_boot_mode(round % 4);
            } else {
                ASSERT_EQ(kestal_non_volatile_rw_func(31, 2, name, sizeof(name), nullptr), 0);
            }
        }
    });
}

TEST_F(ConcurrentCalls, TrackedTotalIsExact)
{
    in_threads([&](int) {
        for (int round = 0; round < 200; ++round) {
            void *block = __real_kestal_calloc_debug(3, 10, "../common/x.cpp", 1, 1);
            block = __real_kestal_realloc_debug(static_cast<char *>(block), 90, "../common/x.cpp", 2, 1);
            kestal_free_debug(block, "../common/x.cpp", 3, 1);
        }
    });
    EXPECT_EQ(tsize, 0);
}

TEST_F(ConcurrentCalls, CachedNumberIsAskedForByAllAtOnce)
{
    controller_state.own_number = -1;
    p().commands["/usr/sbin/cpinfo -i"] = {"3\n", 0};
    in_threads([&](int) { EXPECT_EQ(kestal_get_cnt_num_from_cpinfo(0), 3); });
    EXPECT_EQ(p().open_pipes, 0);
    EXPECT_EQ(p().integer_files.at("/etc/mycntno"), 3);
}

TEST_F(ConcurrentCalls, CommandsAndPipes)
{
    p().run_system = true;
    in_threads([&](int thread) {
        for (int round = 0; round < 5; ++round) {
            char line[64] = "";
            char *output[] = {line, nullptr};
            const std::string command = "echo " + std::to_string(thread);
            ASSERT_EQ(kestal_execute(command.c_str(), output), 0);
            EXPECT_EQ(line, std::to_string(thread));
            ASSERT_EQ(kestal_exec_cmd_by_system(("exit " + std::to_string(thread)).c_str()), thread);
        }
    });
}

TEST_F(ConcurrentCalls, ObservationsOfLocksAreKeptWhole)
{
    in_threads([](int thread) {
        for (int round = 0; round < 300; ++round) {
            EXPECT_EQ(kestal_compare_cntlock_timeout(thread, 100 + thread), 0);
            EXPECT_EQ(kestal_compare_cntlock_timeout(round % 4, 100 + round % 4), 0);
            if (round % 50 == 0) {
                EXPECT_EQ(kestal_reset_cntlock_timeout(thread), 0);
                kestal_allreset_lockinfo();
            }
            kestal_set_version_file_sync();
        }
    });
}
