#include <string.h>

#include "block_map.h"
#include "kesta/block_access.h"
#include "kesta/system_backup_area.h"
#include "ownership.h"
#include "text_field.h"
#include "trace.h"

namespace {

using SysbackName = kesta::TextField<32>;

int refuse(const SysbackName &name)
{
    TRACE(1, "[non_volatile_rw_sysback] NV(sysback) R/W ERROR f_name=%s", name.c_str());
    return KESTA_ERR;
}

int write_item(const SysbackName &name, void *data, unsigned int size)
{
    if (kestal_backup_rw(name.c_str(), KESTA_FILE_WRITE, &data, &size) != KESTA_OK) {
        return refuse(name);
    }
    return KESTA_OK;
}

// flag is handed on as it is: kestal_backup_rw refuses what is no flag.
int read_item(const SysbackName &name, int flag, void *data, unsigned int size)
{
    kesta::TrackedBuffer stored;
    unsigned int stored_size = 0;
    if (kestal_backup_rw(name.c_str(), flag, stored.out(), &stored_size) != KESTA_OK) {
        return refuse(name);
    }
    if (stored_size > size) {
        FAILURE(CONTENT, 0, 1, "[non_volatile_rw_sysback] NV(sysback) R/W Size ERROR f_name=%s", name.c_str());
        return KESTA_ERR;
    }
    if (data) {                                   // always: only a read gets here, and a null one was refused
        memcpy(data, stored.get(), stored_size);  // what is beyond keeps its old contents
    }
    return KESTA_OK;
}

}  // namespace

int kestal_non_volatile_rw_sysback(int block_id, int rw_flag, void *data, unsigned int size)
{
    TRACE(5, "[non_volatile_rw_sysback] NV(sysback) R/W START block_id=%d rw_flag=%d d_size=%d", block_id, rw_flag,
          static_cast<int>(size));
    const kesta::SysbackRow *row = kesta::find_block(kesta::block_id2sysbak_name, block_id);
    if (!row) {
        return KESTA_NO_SYSBACK_NAME;
    }
    // Only a read follows the pointer: a null one to write is refused by kestal_backup_rw, and fails here
    // as any other write does (-1), which is what block access tells its callers apart by.
    if (!data && rw_flag == KESTA_FILE_READ) {
        FAILURE(ARGUMENT, 0, 1, "[non_volatile_rw_sysback] Data area pointer is INVALID");
        return KESTA_ERR_ARGUMENT;
    }
    const SysbackName name(row->sysbakname);
    TRACE(3, "[non_volatile_rw_sysback] NV(sysback) R/W execute f_name=%s", name.c_str());
    const int result =
        rw_flag == KESTA_FILE_WRITE ? write_item(name, data, size) : read_item(name, rw_flag, data, size);
    if (result != KESTA_OK) {
        return result;
    }
    TRACE(5, "[non_volatile_rw_sysback] END");
    return KESTA_OK;
}
