// The access mode of the process for mirrored blocks. Not exported.
#pragma once

#include <pthread.h>

extern "C" {
extern int s_rwmode;  // KESTA_RWMODE_*; guarded by bootmode_mutex
extern pthread_mutex_t bootmode_mutex;
}
