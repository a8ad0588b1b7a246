// The library's mutexes, and what a child made by fork finds of them.
//
// fork copies the calling thread only: a mutex that another thread held would stay locked in the child
// for ever. The library can't hold its mutexes across the fork either, as one is usual to: some are held
// for as long as a command runs. So the child gets them free. What they guard bears it: counters and
// flags of one word each, and sequences of platform calls that the child has no part in.
//
// They stand together for that: a new one is declared here, and stands in the list.
#pragma once

#include <pthread.h>

#include <array>

namespace kesta {

extern pthread_mutex_t memory_mutex;      // the total of tracked allocation
extern pthread_mutex_t system_mutex;      // one shell of system() at a time
extern pthread_mutex_t popen_mutex;       // each popen and pclose, never while a pipe is read
extern pthread_mutex_t bootmode_mutex;    // the access mode
extern pthread_mutex_t nvrw_mutex;        // every NV memory transfer of the process
extern pthread_mutex_t innerlock_mutex;   // one attempt at the inner lock at a time
extern pthread_mutex_t lockbuffer_mutex;  // what was seen of the locks of other controllers

inline constexpr std::array<pthread_mutex_t *, 7> all_mutexes{&memory_mutex,    &system_mutex, &popen_mutex,
                                                              &bootmode_mutex,  &nvrw_mutex,   &innerlock_mutex,
                                                              &lockbuffer_mutex};

// Cheap after the first time; called by whoever locks one of them.
void free_mutexes_in_children();

}  // namespace kesta
