#include "fork_safety.h"

#include <pthread.h>

namespace kesta {
pthread_mutex_t memory_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t system_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t popen_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t bootmode_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t nvrw_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t innerlock_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t lockbuffer_mutex = PTHREAD_MUTEX_INITIALIZER;
}  // namespace kesta

namespace {

pthread_once_t registered = PTHREAD_ONCE_INIT;

void free_mutexes()
{
    for (pthread_mutex_t *mutex : kesta::all_mutexes) {
        *mutex = PTHREAD_MUTEX_INITIALIZER;
    }
}

void register_handler()
{
    // Without memory for it a child may hang, as without the handler.
    [[maybe_unused]] const int result = pthread_atfork(nullptr, nullptr, free_mutexes);
}

}  // namespace

namespace kesta {

// By the first use, not when the library is loaded: it has no start-up code. What is left is a fork that is between its
// handlers and its child when the first call of all is made in another thread.
void free_mutexes_in_children() { pthread_once(&registered, register_handler); }

}  // namespace kesta
