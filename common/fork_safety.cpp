#include "fork_safety.h"

#include <pthread.h>

#include <initializer_list>

namespace kesta {
extern pthread_mutex_t memory_mutex;
extern pthread_mutex_t popen_mutex;
extern pthread_mutex_t lockbuffer_mutex;
extern pthread_mutex_t innerlock_mutex;
extern pthread_mutex_t bootmode_mutex;
extern pthread_mutex_t nvrw_mutex;
extern pthread_mutex_t system_mutex;
}

using kesta::memory_mutex;
using kesta::popen_mutex;
using kesta::lockbuffer_mutex;
using kesta::innerlock_mutex;
using kesta::bootmode_mutex;
using kesta::nvrw_mutex;
using kesta::system_mutex;

namespace {

pthread_once_t registered = PTHREAD_ONCE_INIT;

void free_mutexes()
{
    for (pthread_mutex_t *mutex : {&memory_mutex, &popen_mutex, &lockbuffer_mutex, &innerlock_mutex,
                                   &bootmode_mutex, &nvrw_mutex, &system_mutex}) {
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

void free_mutexes_in_children() { pthread_once(&registered, register_handler); }

}  // namespace kesta
