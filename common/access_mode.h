// The access mode of the process for mirrored blocks. Not exported.
#pragma once

#include <pthread.h>

namespace kesta {
extern int s_rwmode;  // KESTA_RWMODE_*; guarded by bootmode_mutex
extern pthread_mutex_t bootmode_mutex;
}

using kesta::s_rwmode;
using kesta::bootmode_mutex;
