// The repair by twelve workers. Waits pass at once; the waiting thread is held back until the workers that
// can end have ended, and can be joined: a thread that is only about to end would be given up.
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <thread>

#include "library_test.h"

using namespace test;
using testing::HasSubstr;

namespace {

constexpr int workers = 12;

// Counts the threads that came by and have ended since, in whichever way. What they did before comes before what
// follows, also for those that nobody joins.
std::atomic<int> threads_ended{0};
class CountedThread {
public:
    static void comes_by() { thread_local const CountedThread counted; }

private:
    CountedThread() = default;
    ~CountedThread() { ++threads_ended; }
};

}  // namespace

class RepairThreads : public LibraryTest {
protected:
    RepairThreads()
    {
        for (const char *name : {"kesta_sysback", "kesta_sysacpt"}) {
            p().sysback[name] = {std::string("kesta_backup0").append(19, '\0')};
        }
        for (const char *name :
             {"kesta_verid", "kesta_verback", "kesta_ver0", "kesta_ver1", "kesta_ver2", "kesta_ver3", "kesta_reboot"}) {
            p().sysback[name] = {std::string("\7\0\0\0", 4)};
        }
        for (const char *name : {"kesta_wwn", "kesta_serialno"}) {
            p().sysback[name] = {std::string(16, 'w')};
        }
        p().sysback["kesta_guid"] = {std::string(20, 'g')};
        write_file("/etc/kesta_sys/version", "5\n");
    }

    // Each wait of the repair lasts until so many workers of those that were started are gone.
    void await_workers(int done, int started = workers)
    {
        const pthread_t waiting = pthread_self();
        forget_workers();
        p().before_call = [this, waiting, done, started](const std::string &call) {
            const bool waits = pthread_equal(pthread_self(), waiting) != 0;
            if (!waits) {
                note_worker();
            }
            if (hook) {
                hook(call);
            }
            if (waits && call == "usleep 100000") {
                while (ended() < done || living() > started - done || !is_set_up()) {
                    std::this_thread::yield();
                }
            }
        };
    }
    void await_end_of_all_workers()
    {
        while (threads_ended < noted() || living() > 0) {
            std::this_thread::yield();
        }
    }
    // What has to have happened besides.
    virtual bool is_set_up() const { return true; }
    static int ended()
    {
        // Counted by the traces of the workers.
        return p().count_now("[repair_rw] END");
    }
    int repair() { return kestal_repair_memory_from_sysback(nullptr, 0, verback, verid); }

    std::function<void(const std::string &)> hook;
    char verback[4]{};
    char verid[4]{};

private:
    // Workers by their numbers, each noted at its first call. Threads that a sanitizer has are none of them.
    void forget_workers()
    {
        const std::lock_guard guard(mutex_);
        numbers_.clear();
        threads_ended = 0;
    }
    void note_worker()
    {
        CountedThread::comes_by();
        const std::lock_guard guard(mutex_);
        numbers_.insert(gettid());
    }
    int noted()
    {
        const std::lock_guard guard(mutex_);
        return static_cast<int>(numbers_.size());
    }
    // Those that the system still has: one that it hasn't any more can be joined.
    int living()
    {
        const std::lock_guard guard(mutex_);
        return static_cast<int>(std::count_if(numbers_.begin(), numbers_.end(), [](pid_t number) {
            return access(("/proc/self/task/" + std::to_string(number)).c_str(), F_OK) == 0;
        }));
    }

    std::mutex mutex_;
    std::set<pid_t> numbers_;
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

TEST_F(RepairThreads, ThreadThatCanNotBeStartedIsTold)
{
    p().fail_kind("pthread_create", 3, 1);
    p().fault_errno = 11;
    await_workers(3, 3);
    EXPECT_EQ(repair(), -1);
    EXPECT_TRUE(p().traced(1, "[repair_allitem] Thread[3] Execute ERROR rtn=11"));
    EXPECT_TRUE(p().traced(4, "[repair_allitem] RtnValue(2)(rtn=0).")) << "those that run are awaited";
    EXPECT_TRUE(p().traced(1, "[repair_allitem] Thread ReturnValue Error."));
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

// One of the twelve hangs: in the system backup area, where it can be cancelled, or in NV memory, where it
// holds the mutex of all transfers and is not to be interrupted.
struct Hang {
    int worker;
    const char *name;  // of its item in the system backup area
    int offset;        // of its item in NV memory; -1: it has no place there
    int size;
};

void PrintTo(const Hang &hang, std::ostream *out) { *out << hang.name; }

class HangingRepair : public RepairThreads, public testing::WithParamInterface<Hang> {
protected:
    HangingRepair()
    {
        EXPECT_EQ(unlink("/etc/kesta_sys/version"), 0);
        EXPECT_EQ(mkdir("/etc/kesta_sys/version", 0755), 0);  // unreadable: all twelve ask the area
        if (pipe(never_) != 0) {
            abort();
        }
    }
    ~HangingRepair() override
    {
        close(never_[0]);
        close(never_[1]);
        rmdir("/etc/kesta_sys/version");
    }

    // The one that hangs has to be where it hangs.
    bool is_set_up() const override { return hanging; }
    // Stays until it is cancelled, or let go.
    void hang()
    {
        hanging = true;
        char byte;
        const ssize_t nothing = ::read(never_[0], &byte, 1);
        EXPECT_EQ(nothing, 0);
    }
    void let_go()
    {
        close(never_[1]);
        never_[1] = -1;
    }
    void expect_given_up()
    {
        const std::string thread = "Thread(" + std::to_string(GetParam().worker) + ")";
        EXPECT_TRUE(hanging);
        EXPECT_EQ(p().calls_of("usleep 100000").size(), 1200u);
        EXPECT_TRUE(p().traced(4, "[repair_allitem] " + thread + "[1190/1200] don't Finish. Wait..."));
        EXPECT_TRUE(p().traced(1, "[repair_allitem] " + thread + " don't Finish. Error(rtn=0)."));
        for (int i = 0; i < workers; ++i) {
            const std::string done = "[repair_allitem] RtnValue(" + std::to_string(i) + ")(rtn=0).";
            EXPECT_EQ(p().traced(4, done), i < GetParam().worker)
                << "those behind one that hangs are collected after it: never";
        }
        EXPECT_TRUE(p().traced(1, "[repair_allitem] Thread ReturnValue Error."));
    }
    // Every lock is free: the next repair gets through.
    void expect_nothing_held()
    {
        hook = nullptr;
        p().traces.clear();
        p().calls.clear();
        await_workers(workers);
        EXPECT_EQ(repair(), 0);
    }

    std::atomic<bool> hanging{false};

private:
    int never_[2]{};
};

TEST_P(HangingRepair, InTheSystemBackupArea)
{
    hook = [this](const std::string &call) {
        if (call == std::string("sb_open ") + GetParam().name + " r") {
            hang();
        }
    };
    await_workers(workers - 1);
    EXPECT_EQ(repair(), -1);
    expect_given_up();
    await_end_of_all_workers();  // it was cancelled in its reading: nobody has let it go
    expect_nothing_held();
}

class HangingTransfer : public HangingRepair {};

TEST_P(HangingTransfer, InNvMemory)
{
    const std::string transfer =
        "nv_write " + std::to_string(GetParam().offset) + " " + std::to_string(GetParam().size);
    hook = [this, transfer](const std::string &call) {
        // The others get through first: they would wait for the mutex otherwise.
        if (call == std::string("sb_open ") + GetParam().name + " r") {
            while (ended() < workers - 1) {
                std::this_thread::yield();
            }
        }
        if (call == transfer) {
            hang();
        }
    };
    await_workers(workers - 1);
    EXPECT_EQ(repair(), -1);
    expect_given_up();
    let_go();  // its transfer ends, the mutex is free, and then the worker is cancelled
    await_end_of_all_workers();
    expect_nothing_held();
}

class FailedGivingUp : public HangingRepair {};

TEST_P(FailedGivingUp, IsTold)
{
    hook = [this](const std::string &call) {
        if (call == "sb_open kesta_guid r") {
            hang();
        }
    };
    p().fail_kind("pthread_cancel", 0, 1);
    p().fail_kind("pthread_detach", 0, 1);
    p().fault_errno = 3;
    await_workers(workers - 1);
    EXPECT_EQ(repair(), -1);
    EXPECT_TRUE(hanging);
    EXPECT_THAT(p().texts(1), testing::Contains(HasSubstr("[repair_allitem] pthread_cancel Error. (rtn=3,")));
    EXPECT_THAT(p().texts(1), testing::Contains(HasSubstr("[repair_allitem] pthread_detach Error. (rtn=3,")));
    EXPECT_TRUE(p().traced(1, "[repair_allitem] Thread(11) don't Finish. Error(rtn=3)."));
    await_end_of_all_workers();
}

const std::vector<Hang> in_memory{{0, "kesta_sysback", 72, 32}, {1, "kesta_sysacpt", 104, 32},
                                  {2, "kesta_verid", 296, 4},   {3, "kesta_verback", 300, 4},
                                  {4, "kesta_ver0", 312, 4},    {5, "kesta_ver1", 320, 4},
                                  {6, "kesta_ver2", 328, 4},    {7, "kesta_ver3", 336, 4},
                                  {9, "kesta_wwn", 344, 16},    {10, "kesta_serialno", 364, 16},
                                  {11, "kesta_guid", 384, 20}};

std::string name_of(const testing::TestParamInfo<Hang> &tested) { return tested.param.name; }

INSTANTIATE_TEST_SUITE_P(Items, HangingRepair, testing::ValuesIn(in_memory), name_of);
INSTANTIATE_TEST_SUITE_P(Last, FailedGivingUp, testing::Values(in_memory.back()), name_of);
// The reboot version lives in the system backup area only.
INSTANTIATE_TEST_SUITE_P(RebootVersion, HangingRepair, testing::Values(Hang{8, "kesta_reboot", -1, 4}), name_of);
INSTANTIATE_TEST_SUITE_P(Items, HangingTransfer, testing::ValuesIn(in_memory), name_of);

TEST_F(RepairThreads, BodyOfAThreadChecksItsIndex)
{
    int index = 12;
    EXPECT_EQ(kestal_repair_thread_func(&index), reinterpret_cast<void *>(-931L));
    EXPECT_EQ(kestal_repair_thread_func(nullptr), reinterpret_cast<void *>(-931L));
}
