// The repair by twelve workers. Waits pass at once; the waiting thread is held back until the workers that
// can end have ended.
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "library_test.h"

using namespace test;
using testing::HasSubstr;

namespace {

constexpr int workers = 12;

}  // namespace

class RepairThreads : public LibraryTest {
protected:
    RepairThreads()
    {
        for (const char *name : {"kesta_sysback", "kesta_sysacpt"}) {
            p().sysback[name] = {std::string("kesta_backup0").append(19, '\0')};
        }
        for (const char *name : {"kesta_verid", "kesta_verback", "kesta_ver0", "kesta_ver1",
                                 "kesta_ver2", "kesta_ver3", "kesta_reboot"}) {
            p().sysback[name] = {std::string("\7\0\0\0", 4)};
        }
        for (const char *name : {"kesta_wwn", "kesta_serialno"}) {
            p().sysback[name] = {std::string(16, 'w')};
        }
        p().sysback["kesta_guid"] = {std::string(20, 'g')};
        write_file("/etc/kesta_sys/version", "5\n");
    }

    // Each wait of the repair lasts until so many workers are done.
    void await_workers(int done)
    {
        const pthread_t waiting = pthread_self();
        p().before_call = [this, waiting, done](const std::string &call) {
            if (hook) {
                hook(call);
            }
            if (pthread_equal(pthread_self(), waiting) && call == "usleep 100000") {
                while (ended() < done) {
                    std::this_thread::yield();
                }
            }
        };
    }
    static int ended()
    {
        // Counted by the traces of the workers.
        return p().count_now("[repair_rw] END");
    }
    int repair() { return kestal_repair_memory_from_sysback(nullptr, 0, verback, verid); }

    std::function<void(const std::string &)> hook;
    char verback[4]{};
    char verid[4]{};
};

TEST_F(RepairThreads, AllTwelveAreCopied)
{
    await_workers(workers);
    EXPECT_EQ(repair(), 0);
    EXPECT_EQ(p().text_at(nv_backup_name, 32), "kesta_backup0");
    EXPECT_EQ(p().int_at(nv_version0 + 24), 5);
    EXPECT_EQ(p().int_at(nv_backup_version), 7);
    EXPECT_EQ(verback[0], 7);
    EXPECT_EQ(verid[0], 7);
    EXPECT_TRUE(p().traced(4, "[repair_allitem] called from env_restore2."));
    for (int i = 0; i < workers; ++i) {
        EXPECT_TRUE(p().traced(4, "[repair_allitem] RtnValue(" + std::to_string(i) + ")(rtn=0)."));
    }
    EXPECT_TRUE(p().traced(4, "[repair_allitem] END"));
}

TEST_F(RepairThreads, WorkerThatFailsIsTold)
{
    p().sysback.erase("kesta_serialno");
    await_workers(workers);
    EXPECT_EQ(repair(), -1);
    EXPECT_TRUE(p().traced(1, "[repair_allitem] RtnValue(10) Error(rtn=-1)."));
    EXPECT_TRUE(p().traced(1, "[repair_allitem] Thread ReturnValue Error."));
    EXPECT_TRUE(p().traced(1, "[repair_memory_from_sysback] Failed to repair Memory."));
    EXPECT_EQ(p().text_at(384, 20), std::string(20, 'g')) << "the others are done";
}

TEST_F(RepairThreads, WorkerThatHangsIsGivenUpAfterTwoMinutes)
{
    std::atomic<bool> gone{false};
    std::atomic<bool> hanging{false};
    int never[2];
    ASSERT_EQ(pipe(never), 0);
    hook = [&](const std::string &call) {
        if (call == "sb_open kesta_guid r") {
            struct Left {
                std::atomic<bool> &gone;
                ~Left() { gone = true; }
            } left{gone};
            hanging = true;
            char byte;
            const ssize_t nothing = ::read(never[0], &byte, 1);  // until it is cancelled
            EXPECT_EQ(nothing, 0);
        }
    };
    await_workers(workers - 1);
    EXPECT_EQ(repair(), -1);
    EXPECT_TRUE(hanging);
    EXPECT_EQ(p().calls_of("usleep 100000").size(), 1200u);
    EXPECT_TRUE(p().traced(4, "[repair_allitem] Thread(11)[1190/1200] don't Finish. Wait..."));
    EXPECT_TRUE(p().traced(1, "[repair_allitem] Thread(11) don't Finish. Error(rtn=0)."));
    while (!gone) {
        std::this_thread::yield();  // cancelled in its reading, not ended by it
    }
    close(never[0]);
    close(never[1]);
    hook = nullptr;
    // The next repair finds no lock held.
    EXPECT_EQ(p().text_at(nv_backup_name, 32), "kesta_backup0");
    p().traces.clear();
    await_workers(workers);
    EXPECT_EQ(repair(), 0);
}

TEST_F(RepairThreads, BodyOfAThreadChecksItsIndex)
{
    int index = 12;
    EXPECT_EQ(kestal_repair_thread_func(&index), reinterpret_cast<void *>(-931L));
    EXPECT_EQ(kestal_repair_thread_func(nullptr), reinterpret_cast<void *>(-931L));
}
