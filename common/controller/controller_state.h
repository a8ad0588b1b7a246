// What the process knows about its controller. Visible to the whole library, not exported.
#pragma once

namespace kesta {
// Each starts at -1 and holds a value or the negative code of the last failure.
extern volatile int g_my_cnt_no;        // own controller number, 0..3
extern volatile int g_my_cnt_no_write;  // 0 once /etc/mycntno has been written by this process
extern volatile int g_my_cnt_num;       // number of controllers, 1..4
extern volatile int g_my_boot_mode;     // KESTA_BOOT_*

// What eeprom printed last, at most 16 characters; the last byte stays NUL.
extern char g_eeprom_wwn[17];
extern char g_eeprom_serialno[17];
}

using kesta::g_my_cnt_no;
using kesta::g_my_cnt_no_write;
using kesta::g_my_cnt_num;
using kesta::g_my_boot_mode;
using kesta::g_eeprom_wwn;
using kesta::g_eeprom_serialno;

namespace kesta {

// The cached numbers have no lock: a race only repeats a question. The accesses are atomic so that
// the race is not one in the language's sense.
inline int cached(const volatile int &value) { return __atomic_load_n(&value, __ATOMIC_RELAXED); }
inline void set_cached(volatile int &cache, int value)
{
    __atomic_store_n(&cache, value, __ATOMIC_RELAXED);
}

inline int own_controller() { return cached(g_my_cnt_no); }

// The number at the start of a text, as atoi gives it; out of range is the nearest int, so that a
// range check after it can't be fooled by a number that wraps.
int leading_int(const char *text);

}  // namespace kesta
