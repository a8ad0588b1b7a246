// What the process knows about its controller. Visible to the whole library, not exported.
#pragma once

#include "kesta/identity.h"

namespace kesta {

struct ControllerState {
    // Each starts at -1 and holds a value or the negative code of the last failure.
    volatile int own_number = -1;          // 0..3
    volatile int own_number_written = -1;  // 0 once /etc/mycntno has been written by this process
    volatile int count = -1;               // of controllers, 1..4
    volatile int boot_mode = -1;           // KESTA_BOOT_*

    // What eeprom printed last; the last byte stays NUL.
    char eeprom_wwn[KESTA_WWN_LENGTH + 1] = {};
    char eeprom_serialno[KESTA_SERIALNO_LENGTH + 1] = {};
};
extern ControllerState controller_state;

// As in a process that has just started.
void reset_controller_state();

// The cached numbers have no lock: a race only repeats a question. The accesses are atomic so that
// the race is not one in the language's sense.
inline int cached(const volatile int &value) { return __atomic_load_n(&value, __ATOMIC_RELAXED); }
inline void set_cached(volatile int &cache, int value) { __atomic_store_n(&cache, value, __ATOMIC_RELAXED); }

inline int own_controller() { return cached(controller_state.own_number); }

// The number at the start of a text, as atoi gives it; out of range is the nearest int, so that a
// range check after it can't be fooled by a number that wraps.
int leading_int(const char *text);

}  // namespace kesta

using kesta::controller_state;
