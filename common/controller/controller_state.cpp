#include "controller_state.h"

#include <limits.h>
#include <stdlib.h>

#include <algorithm>

#include "ownership.h"

namespace kesta {

volatile int g_my_cnt_no = -1;
volatile int g_my_cnt_no_write = -1;
volatile int g_my_cnt_num = -1;
volatile int g_my_boot_mode = -1;
char g_eeprom_wwn[17];
char g_eeprom_serialno[17];

int leading_int(const char *text)
{
    ErrnoKept keep;
    const long value = strtol(text, nullptr, 10);
    return static_cast<int>(std::clamp(value, static_cast<long>(INT_MIN), static_cast<long>(INT_MAX)));
}

}  // namespace kesta
