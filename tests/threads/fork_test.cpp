// Children made by fork while another thread of the process is inside the library.
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "access_mode.h"
#include "controller_state.h"
#include "fork_safety.h"
#include "library_test.h"
#include "nv_transfer.h"
#include "tracked_allocation.h"

using namespace test;

class Fork : public LibraryTest {};

TEST_F(Fork, ChildFindsNoMutexTaken)
{
    for (pthread_mutex_t *mutex : kesta::all_mutexes) {
        std::atomic<int> stage = 0;
        std::thread holder([&] {
            const kesta::MutexGuard guard(*mutex);
            stage = 1;
            stage.notify_all();
            stage.wait(1);
        });
        stage.wait(0);
        const pid_t child = fork();
        if (child == 0) {
            alarm(60);  // it would wait for ever
            const kesta::MutexGuard guard(*mutex);
            _exit(0);
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        stage = 2;
        stage.notify_all();
        holder.join();
    }
}

TEST_F(Fork, ParentKeepsItsMutexes)
{
    const kesta::MutexGuard guard(nvrw_mutex);
    const pid_t child = fork();
    if (child == 0) {
        _exit(0);
    }
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(pthread_mutex_trylock(&nvrw_mutex), EBUSY);
}
