// The running total of tracked allocation. Not exported.
#pragma once

#include "fork_safety.h"

namespace kesta {
extern volatile int tsize;  // tracked user bytes now allocated
}

using kesta::tsize;
using kesta::memory_mutex;
