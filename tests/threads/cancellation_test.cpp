// A thread is cancelled at each of the calls that an operation makes: its locks, handles, pipes
// and descriptors are let go, and the next caller finds everything usable.
#include <pthread.h>

#include <functional>

#include "library_test.h"

using namespace test;

namespace {

struct Outcome {
    bool cancelled;
    int result;
};

// Runs an operation in a thread that is cancelled at its Nth call.
Outcome cancelled_at(long n, const std::function<int()> &operation)
{
    struct Job {
        const std::function<int()> *operation;
        int result = 0;
    } job{&operation};
    long met = 0;
    bool armed = true;
    platform().before_call = [&, n](const std::string &) {
        if (armed && ++met >= n) {
            if (met == n) {
                pthread_cancel(pthread_self());
            }
            pthread_testcancel();  // as a real call would; nothing while cancellation is off
        }
    };
    pthread_t thread;
    EXPECT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void *argument) -> void * {
                      auto *own = static_cast<Job *>(argument);
                      own->result = (*own->operation)();
                      return own;
                  },
                  &job),
              0);
    void *end = nullptr;
    EXPECT_EQ(pthread_join(thread, &end), 0);
    armed = false;
    platform().before_call = nullptr;
    return {end == PTHREAD_CANCELED, job.result};
}

class Cancellation : public LibraryTest {
protected:
    Cancellation() { prepare(); }
    static void prepare()
    {
        use_slots();
        p().sysback["kesta_backup0"] = {"backup slot"};
        p().commands["/usr/sbin/cpinfo -i"] = {"0\n", 0};
        write_file("/opt/kesta_sys/bakup/backup.tar.Z", "flash");
    }
    // Cancels at call 1, 2, ... until the operation gets through uncancelled.
    void sweep(const std::function<int()> &operation)
    {
        for (long n = 1;; ++n) {
            ASSERT_LT(n, 500);
            SCOPED_TRACE("cancelled at call " + std::to_string(n));
            reset();
            prepare();
            const Outcome outcome = cancelled_at(n, operation);
            EXPECT_EQ(p().open_handles, 0);
            EXPECT_EQ(p().open_pipes, 0);
            EXPECT_TRUE(inner_lock_is_free());
            // Every mutex is free: nothing hangs now.
            EXPECT_EQ(operation(), 0);
            if (!outcome.cancelled) {
                EXPECT_EQ(outcome.result, 0);
                if (n > static_cast<long>(p().calls_met)) {
                    break;
                }
            }
        }
    }
};

}  // namespace

TEST_F(Cancellation, BlockAccess)
{
    sweep([] {
        char name[32];
        return kestal_non_volatile_rw_func(31, 2, name, sizeof(name), nullptr);
    });
    sweep([] {
        char name[32] = "kesta_backup0";
        return kestal_non_volatile_rw_func(31, 1, name, sizeof(name), nullptr);
    });
}

TEST_F(Cancellation, Versions)
{
    sweep([] { return kestal_set_version(1, 0, 5); });
    sweep([] {
        kestal_set_version(4, 0, 7);
        return kestal_read_version(4, 0, 0) == 7 ? 0 : -1;
    });
    sweep([] { return kestal_set_flash_version_file(5, 0); });
    sweep([] {
        kestal_set_flash_version_file(5, 0);
        return kestal_compare_version(0, 5, 5);
    });
}

TEST_F(Cancellation, CommandAndLocalLocks)
{
    sweep([] {
        char identifier[64];
        kestal_global_command_unlock_func(0, nullptr, 0);
        return kestal_global_command_lock_func(0, 1, identifier, nullptr, 0, nullptr);
    });
    sweep([] {
        kestal_global_command_unlock_func(0, nullptr, 0);
        return kestal_global_command_lock_check(-1, nullptr, nullptr);
    });
    sweep([] { return kestal_create_lock_file("42", "/tmp/kesta_sys/tmp/identifier"); });
}

TEST_F(Cancellation, NvRetriesEndBeforeTheThreadDoes)
{
    // Five failed attempts sleep under the mutex: the cancellation waits for its release.
    p().fail_kind("nv_read", 0, 4);
    const Outcome outcome = cancelled_at(2, [] {
        int value;
        const int result = kestal_non_volatile_rw_memory(51, 2, &value, sizeof(value));
        pthread_testcancel();
        return result;
    });
    EXPECT_TRUE(outcome.cancelled);
    EXPECT_EQ(p().calls_of("nv_read").size(), 5u) << "not one attempt less";
    int value;
    EXPECT_EQ(kestal_non_volatile_rw_memory(51, 2, &value, sizeof(value)), 0);
}

TEST_F(Cancellation, CancellationStateIsPutBackNotForcedOn)
{
    int before;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    int value;
    EXPECT_EQ(kestal_non_volatile_rw_memory(51, 2, &value, sizeof(value)), 0);
    EXPECT_EQ(kestal_cntl_innerlock(0), 0);
    EXPECT_EQ(kestal_reset_mycnt_innerlock_main(0, 0), 0);
    int now;
    pthread_setcancelstate(before, &now);
    EXPECT_EQ(now, PTHREAD_CANCEL_DISABLE);
}

TEST_F(Cancellation, WholeFiles)
{
    sweep([] {
        // The buffer belongs to the caller as soon as it is handed back.
        struct Buffer {
            ~Buffer() { kestal_free_debug(data, "../common/x.cpp", 1, 0); }
            void *data = nullptr;
        } buffer;
        unsigned size = 0;
        return kestal_backup_rw("kesta_backup0", 1, &buffer.data, &size);
    });
    sweep([] {
        char bytes[] = "bytes";
        void *data = bytes;
        unsigned size = sizeof(bytes);
        return kestal_backup_rw("kesta_backup0", 2, &data, &size);
    });
}

TEST_F(Cancellation, Names)
{
    sweep([] {
        char accept[32];
        char backup[32];
        return kestal_area_file_rw(2, accept, backup);
    });
    sweep([] {
        char name[32] = "kesta_backup1";
        return kestal_change_address(name, nullptr, 0);
    });
}

TEST_F(Cancellation, CommandOutput)
{
    sweep([] { return kestal_execute_command_by_popen(0); });
    sweep([] { return kestal_get_cnt_num_from_cpinfo(4); });
}

TEST_F(Cancellation, WaitingForTheInnerLock)
{
    p().set_int(nv_slot(1), 1);
    p().set_int(nv_slot(1) + 8, 4711);
    const Outcome outcome = cancelled_at(10, [] { return kestal_cntl_innerlock(0); });
    EXPECT_TRUE(outcome.cancelled);
    EXPECT_EQ(p().int_at(nv_slot(0)), 0) << "no claim is left";
    p().set_int(nv_slot(1), 0);
    EXPECT_EQ(kestal_cntl_innerlock(0), 0) << "the mutex is free";
}

TEST_F(Cancellation, StepsOfTheIdentityFlows)
{
    const auto make_tree = [] {
        write_file("/var/run/kesta_sys/env_restore2/C/etc/inet/hosts", "");
        for (const char *part : {"0", "1"}) {
            write_file(std::string("/var/run/kesta_sys/env_restore2/") + part + "/etc/nodename",
                       std::string("5000000000000001-") + part + "\n");
        }
    };
    make_tree();
    sweep([] { return kestal_update_vpdinfo_guid("0123abcd-4567-89ab-cdef-0123456789ab"); });
    sweep([make_tree] {
        make_tree();
        kestal_update_vpdinfo_eeprom(nullptr, nullptr);
        return kestal_update_host_info("5000000000000001", "5000000000000001");
    });
}

TEST_F(Cancellation, FlowsIntoTheArea)
{
    sweep([] { return kestal_cntbackup2backup(); });
}
