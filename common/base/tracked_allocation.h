// The running total of tracked allocation. Not exported.
#pragma once

#include "fork_safety.h"

namespace kesta {
extern volatile int tsize;  // tracked user bytes now allocated

// As in a process that has just started.
void reset_tracked_allocation();
}  // namespace kesta

using kesta::memory_mutex;
using kesta::tsize;
