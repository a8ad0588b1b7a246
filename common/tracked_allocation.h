// The running total of tracked allocation. Not exported.
#pragma once

#include <pthread.h>

namespace kesta {
extern volatile int tsize;  // tracked user bytes now allocated
extern pthread_mutex_t memory_mutex;
}

using kesta::tsize;
using kesta::memory_mutex;
