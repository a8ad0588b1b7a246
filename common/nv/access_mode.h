// The access mode of the process for mirrored blocks. Not exported.
#pragma once

#include "fork_safety.h"

namespace kesta {
extern int s_rwmode;  // KESTA_RWMODE_*; guarded by bootmode_mutex

// As in a process that has just started.
void reset_access_mode();
}  // namespace kesta

using kesta::bootmode_mutex;
using kesta::s_rwmode;
