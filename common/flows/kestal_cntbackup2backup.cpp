#include "archive_to_slot.h"
#include "kesta/backup_flows.h"
#include "kesta/paths.h"
#include "slots_in_force.h"
#include "storage_places.h"
#include "trace.h"

namespace {

void report_step(kesta::ToSlotStep step, const char *file, const char *slot, unsigned int size, int error)
{
    switch (step) {
    case kesta::ToSlotStep::measure:
        TRACE(1, "[cntbackup2backup]  Get File size ERROR c_name=%s", file);
        break;
    case kesta::ToSlotStep::allocate:
        FAILURE(MEMORY, error, 1, "[cntbackup2backup] MALLOC ERROR size=%d errno=%d", static_cast<int>(size), error);
        break;
    case kesta::ToSlotStep::open:
        FAILURE(SYSTEM, error, 1, "[cntbackup2backup]  File Open(Read) ERROR c_name=%s, errno=%d", file, error);
        break;
    case kesta::ToSlotStep::read:
        FAILURE(SYSTEM, error, 1, "[cntbackup2backup]  Read ERROR c_name=%s f_size=%d errno=%d", file,
                static_cast<int>(size), error);
        break;
    case kesta::ToSlotStep::announce:
        TRACE(4, "[cntbackup2backup]  CNT_BACKUP ---> BACKUP from_file=%s to_file=%s", file, slot);
        break;
    case kesta::ToSlotStep::write:
        TRACE(1, "[cntbackup2backup]  Write Backup area ERROR f_name=%s", slot);
        break;
    }
}

}  // namespace

int kestal_cntbackup2backup(void)
{
    TRACE(5, "[cntbackup2backup] START");
    kesta::AreaName slot;
    const int result = kesta::read_backup_slot_name(slot);
    if (result != KESTA_OK) {
        TRACE(1, "[cntbackup2backup] Get Backup area file name ERROR result=%d", result);
        return KESTA_ERR;
    }
    const kesta::Path source = kesta::path_of(KESTA_FLASH_DIRECTORY, KESTA_BACKUP_ARCHIVE);
    TRACE(5, "[cntbackup2backup] CNT backup area path. c_name=%s", source.data());
    const int ret = kesta::archive_to_slot(source.data(), slot.c_str(), report_step);
    TRACE(5, "[cntbackup2backup] END ret=%d", ret);
    return ret;
}
