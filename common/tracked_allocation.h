// The running total of tracked allocation. Not exported.
#pragma once

#include <pthread.h>

extern "C" {
extern volatile int tsize;  // tracked user bytes now allocated
extern pthread_mutex_t memory_mutex;
}
