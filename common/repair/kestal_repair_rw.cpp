#include <errno.h>
#include <pthread.h>
#include <string.h>

#include <algorithm>
#include <array>

#include "kesta/alloc.h"
#include "kesta/block_access.h"
#include "kesta/nv_image.h"
#include "kesta/system_backup_area.h"
#include "kesta/versions.h"
#include "ownership.h"
#include "repair_state.h"
#include "slot_names.h"
#include "trace.h"

namespace {

using BlockAccess = int (*)(int, int, void *, unsigned int);

// How a direction reads and writes, and how the traces call it. The label of the second reading says
// "SysBack Write": logs of a repair are searched for that text, and tell the direction by it.
struct RepairRow {
    BlockAccess read;
    BlockAccess write;
    int rw_flag_read;
    int rw_flag_write;
    const char *log_from;
    const char *log_to;
};
constexpr std::array<RepairRow, 2> repair_rw{{
    {kestal_non_volatile_rw_memory, kestal_non_volatile_rw_sysback, KESTA_BLOCK_READ, KESTA_FILE_WRITE, "Memory Read",
     "SysBack Write"},
    {kestal_non_volatile_rw_sysback, kestal_non_volatile_rw_memory, KESTA_FILE_READ, KESTA_BLOCK_WRITE, "SysBack Write",
     "Memory Write"},
}};

// One copy of a block.
class Copy {
public:
    Copy(const RepairRow &row, int block_id, size_t length, char *buffer)
        : row_(row), block_id_(block_id), length_(length), buffer_(buffer)
    {
    }

    int run()
    {
        if (!supplied()) {
            if (const int rtn = row_.read(block_id_, row_.rw_flag_read, buffer_, size()); rtn != KESTA_OK) {
                TRACE(1, "[repair_rw] %s ERROR rtn=%d", row_.log_from, rtn);
                return KESTA_ERR;
            }
            // A worker that was given up while it hung must not touch the caller's memory any more.
            pthread_testcancel();
            hand_out_version();
        }
        if (const int rtn = row_.write(block_id_, row_.rw_flag_write, buffer_, size()); rtn != KESTA_OK) {
            TRACE(1, "[repair_rw] %s ERROR rtn=%d", row_.log_to, rtn);
            return KESTA_ERR;
        }
        return KESTA_OK;
    }

private:
    unsigned int size() const { return static_cast<unsigned int>(length_); }

    // Whether the value comes from elsewhere than the source side.
    bool supplied()
    {
        if (repair_state.with_supplied_values == 0) {
            return false;
        }
        switch (block_id_) {
        case KESTA_BLOCK_NUMBERING_VERSION:
        case KESTA_BLOCK_BACKUP_VERSION:
        case KESTA_BLOCK_REBOOT_VERSION:
            TRACE(5, "[repair_rw] sysvol read normal.(id=%d)", block_id_);
            return false;
        case KESTA_BLOCK_VERSION_CNT0:
        case KESTA_BLOCK_VERSION_CNT0 + 1:
        case KESTA_BLOCK_VERSION_CNT0 + 2:
        case KESTA_BLOCK_VERSION_CNT0 + 3:
            return take_flash_version();
        case KESTA_BLOCK_ACCEPT_NAME:
            return take_accept_name();
        case KESTA_BLOCK_BACKUP_NAME:
        case KESTA_BLOCK_WWN:
        case KESTA_BLOCK_SERIALNO:
        case KESTA_BLOCK_GUID:
            return take_record();
        default:
            TRACE(3, "[repair_rw] sysvol read (id=%d)", block_id_);
            return false;
        }
    }

    bool take_flash_version()
    {
        int version = 0;
        if (kestal_read_flash_version_file(&version, KESTA_FLASH_VERSION) != KESTA_OK) {
            TRACE(3, "[repair_rw] sysvol read for file read error.(id=%d)", block_id_);
            return false;
        }
        memcpy(buffer_, &version, std::min(length_, sizeof(version)));
        return true;
    }

    bool no_data() const
    {
        TRACE(3, "[repair_rw] sysvol read for no-data (id=%d)", block_id_);
        return false;
    }

    static const KESTA_REPAIR_SYSVOL_DATA *records_end()
    {
        return repair_state.records + (repair_state.records ? std::max(repair_state.record_count, 0) : 0);
    }

    bool take_record()
    {
        for (const KESTA_REPAIR_SYSVOL_DATA *record = repair_state.records; record != records_end(); ++record) {
            if (record->id == block_id_ && record->data) {
                memcpy(buffer_, record->data, length_);
                return true;
            }
        }
        return no_data();
    }

    // The accept name itself, or the other slot than the backup name: whichever record comes first.
    bool take_accept_name()
    {
        for (const KESTA_REPAIR_SYSVOL_DATA *record = repair_state.records; record != records_end(); ++record) {
            if (!record->data) {
                continue;
            }
            if (record->id == KESTA_BLOCK_ACCEPT_NAME) {
                memcpy(buffer_, record->data, length_);
                return true;
            }
            if (record->id == KESTA_BLOCK_BACKUP_NAME) {
                return derive_accept_name(record->data);
            }
        }
        return no_data();
    }

    bool derive_accept_name(const char *backup_name)
    {
        const char *other = kesta::other_slot(backup_name);
        if (!other) {
            TRACE(3, "[repair_rw] sysvol read for irrigal data(id=%d)", block_id_);
            return false;
        }
        memset(buffer_, 0, length_);
        memcpy(buffer_, other, std::min(length_, strlen(other)));
        return true;
    }

    void hand_out_version() const
    {
        if (repair_state.with_supplied_values == 0) {
            return;
        }
        char *to = block_id_ == KESTA_BLOCK_BACKUP_VERSION      ? repair_state.backup_version
                   : block_id_ == KESTA_BLOCK_NUMBERING_VERSION ? repair_state.numbering_version
                                                                : nullptr;
        if (to) {
            memcpy(to, buffer_, length_);
        }
    }

    const RepairRow &row_;
    const int block_id_;
    const size_t length_;
    char *const buffer_;
};

}  // namespace

namespace kesta {
constinit RepairState repair_state;
}

int kestal_repair_rw(int direction, int block_id, size_t length)
{
    TRACE(5, "[repair_rw] START");
    if (static_cast<unsigned>(direction) >= repair_rw.size()) {
        FAILURE(ARGUMENT, 0, 1, "[repair_rw] Argument ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    const kesta::TrackedBuffer buffer(kestal_calloc_debug(1, static_cast<int>(length), __FILE__, __LINE__, 0));
    if (!buffer) {
        MEMORY_FAILURE(error, 1, "[repair_rw] MALLOC error. errno=%d", error);
        return KESTA_ERR;
    }
    const int rtn =
        Copy(repair_rw[static_cast<std::size_t>(direction)], block_id, length, static_cast<char *>(buffer.get())).run();
    TRACE(5, "[repair_rw] END rtn=%d", rtn);
    return rtn;
}
