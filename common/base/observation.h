// What was seen of a value that its owner changes as long as it lives, and for how long it has been the same.
#pragma once

#include "kesta/inner_lock.h"
#include "process_clock.h"

namespace kesta {

enum class Observed {
    anew,      // another value than before, or the first one: its time begins
    same,      // for at most the given seconds
    too_long,  // the same for longer: its owner is taken for dead
};

// A value of 0 is nobody's, and has no time.
inline Observed observe(KESTAL_LOCKBUFFER_STRUCT &seen, int value, clock_t now, clock_t seconds)
{
    if (value == seen.value) {
        return now - seen.clock > seconds ? Observed::too_long : Observed::same;
    }
    seen.value = value;
    seen.clock = value != 0 ? now : 0;
    return Observed::anew;
}

}  // namespace kesta
