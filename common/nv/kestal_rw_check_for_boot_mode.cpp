#include <stdlib.h>

#include <array>

#include "access_mode.h"
#include "block_map.h"
#include "controller_state.h"
#include "kesta/block_access.h"
#include "kesta/controller.h"
#include "kesta/system_backup_area.h"
#include "ownership.h"
#include "trace.h"

namespace kesta {
int s_rwmode = KESTA_RWMODE_BOTH;
void reset_access_mode() { s_rwmode = KESTA_RWMODE_BOTH; }
}  // namespace kesta

namespace {

constexpr const char *probe_file = kesta::mirror_name(KESTA_BLOCK_BACKUP_NAME);
constexpr int reset_requested = 1;

// Normal and InitConf differ in their texts, and in what an empty probe file means after a reset:
// InitConf takes it for a disk that is ready to be filled.
struct BootModeRow {
    int boot_mode;
    const char *name;
    bool empty_is_good_after_reset;
};

constexpr std::array<BootModeRow, 2> disk_boot_modes{{
    {KESTA_BOOT_NORMAL, "Normal(0)", false},
    {KESTA_BOOT_INITCONF, "InitConf(2)", true},
}};

const BootModeRow *disk_boot_mode(int boot_mode)
{
    for (const BootModeRow &row : disk_boot_modes) {
        if (row.boot_mode == boot_mode) {
            return &row;
        }
    }
    return nullptr;
}

bool disk_is_ruled_out()
{
    const char *text = secure_getenv("KESTA_NOHDD_STATUS");
    return text && kesta::leading_int(text) == 1;
}

bool disk_is_good(const BootModeRow &row, int size)
{
    if (size != 0) {
        return size > 0;
    }
    return row.empty_is_good_after_reset || s_rwmode != KESTA_RWMODE_UNKNOWN;
}

int memory_only(const BootModeRow &row)
{
    TRACE(3, "[rw_check_for_execute_mode] BootMode = %s HDD:NG NV:OK", row.name);
    return KESTA_RWMODE_MEMORY;
}

// The buffer lives until the check is over: it is released after the last trace.
int probe_disk(const BootModeRow &row, kesta::TrackedBuffer &buffer)
{
    if (disk_is_ruled_out()) {
        return memory_only(row);
    }
    unsigned int stored = static_cast<unsigned int>(-1);
    const int rtn = kestal_backup_rw(probe_file, KESTA_FILE_READ, buffer.out(), &stored);
    if (rtn != KESTA_OK) {
        FAILURE(PLATFORM, rtn, 1, "[rw_check_for_execute_mode] sbacc_open ERROR rtn=%d.", rtn);
        return memory_only(row);
    }
    const int size = static_cast<int>(stored);
    if (disk_is_good(row, size)) {
        TRACE(3, "[rw_check_for_execute_mode] BootMode = %s HDD:OK NV:OK(readsize=%d)", row.name, size);
        return KESTA_RWMODE_BOTH;
    }
    TRACE(3, "[rw_check_for_execute_mode] BootMode = %s HDD:NG NV:OK(readsize=%d)", row.name, size);
    return KESTA_RWMODE_MEMORY;
}

}  // namespace

int kestal_rw_check_for_boot_mode(int *mode, int reset)
{
    if (!mode) {
        FAILURE(ARGUMENT, 0, 1, "[rw_check_for_execute_mode] Argument ERROR(mode=NULL)");
        return KESTA_ERR_ARGUMENT;
    }
    kesta::TrackedBuffer buffer;
    kesta::MutexGuard guard(bootmode_mutex);
    if (reset == reset_requested) {
        kestal_rw_check_reset();
    }
    if (s_rwmode < 0) {
        const int boot_mode = kestal_get_cnt_num_from_cpinfo(KESTA_CPINFO_BOOT_MODE);
        const BootModeRow *row = disk_boot_mode(boot_mode);
        if (row) {
            s_rwmode = probe_disk(*row, buffer);
        } else if (boot_mode == KESTA_BOOT_SUSPEND) {
            TRACE(3, "[rw_check_for_execute_mode] BootMode = Suspend(1) HDD:NG NV:NG");
            s_rwmode = KESTA_RWMODE_NONE;
        } else {
            TRACE(1, "[rw_check_for_execute_mode] Get Boot Mode ERROR rtn=%d.", boot_mode);
            *mode = s_rwmode = KESTA_RWMODE_NONE;
            return KESTA_ERR;
        }
    }
    *mode = s_rwmode;
    TRACE(5, "[rw_check_for_execute_mode] ReturnMode %d.", *mode);
    return KESTA_OK;
}

void kestal_rw_set_boot_mode(int mode)
{
    {
        kesta::MutexGuard guard(bootmode_mutex);
        s_rwmode = mode;
    }
    TRACE(4, "[rw_set_boot_mode] rwmode set(rwmode=%d)", mode);
}

void kestal_rw_check_reset(void)
{
    s_rwmode = KESTA_RWMODE_UNKNOWN;
    TRACE(4, "[rw_check_reset] rwmode reset(rwmode=%d)", KESTA_RWMODE_UNKNOWN);
}
