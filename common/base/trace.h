// One trace line with this file and line. The format must be a literal: the compiler checks it.
#pragma once

#include <errno.h>

#include "cause.h"
#include "mc_logapi.h"

#define TRACE(level, ...) MC_OutTrace(__FILE__, __LINE__, (level), __VA_ARGS__)

// The same line where a failure is met, which becomes the thread's last cause: FAILURE(SYSTEM, errno, 1, "..."). The
// arguments are evaluated twice.
#define FAILURE(kind, number, level, ...) \
    (kesta::note_cause(KESTA_CAUSE_##kind, (number), __FILE__, __VA_ARGS__), TRACE((level), __VA_ARGS__))

// A failure that errno tells of: taken first, under the name that the arguments call it by, since a trace may change it.
// SYSTEM_FAILURE(error, 1, "... errno=%d", error)
#define SYSTEM_FAILURE(name, level, ...) ERRNO_FAILURE(SYSTEM, name, level, __VA_ARGS__)
#define MEMORY_FAILURE(name, level, ...) ERRNO_FAILURE(MEMORY, name, level, __VA_ARGS__)

#define ERRNO_FAILURE(kind, name, level, ...)    \
    do {                                         \
        const int name = errno;                  \
        FAILURE(kind, name, level, __VA_ARGS__); \
    } while (false)
