#include <string.h>

#include "archive_to_slot.h"
#include "kesta/backup_flows.h"
#include "kesta/paths.h"
#include "slot_names.h"
#include "slots_in_force.h"
#include "storage_places.h"
#include "trace.h"

namespace {

using kesta::AreaName;

void report_step(kesta::ToSlotStep step, const char *file, const char *slot, unsigned int size, int error)
{
    switch (step) {
    case kesta::ToSlotStep::measure:
        TRACE(1, "[merge_file2accept]  Get File size ERROR t_name=%s", file);
        break;
    case kesta::ToSlotStep::allocate:
        FAILURE(MEMORY, error, 1, "[merge_file2accept] MALLOC ERROR size=%d errno=%d", static_cast<int>(size), error);
        break;
    case kesta::ToSlotStep::open:
        FAILURE(SYSTEM, error, 1, "[merge_file2accept]  File Open(Read) ERROR t_name=%s errno=%d", file, error);
        break;
    case kesta::ToSlotStep::read:
        FAILURE(SYSTEM, error, 1, "[merge_file2accept]  Read ERROR t_name=%s f_size=%d errno=%d", file,
                static_cast<int>(size), error);
        break;
    case kesta::ToSlotStep::announce:
        TRACE(4, "[merge_file2accept] Tmp(%s) ---> SYSBACK(accept:%s)", file, slot);
        break;
    case kesta::ToSlotStep::write:
        TRACE(1, "[merge_file2accept]  Write Accept area ERROR f_name=%s ", slot);
        break;
    }
}

// The caller's slot, or the accept slot in force, which the caller learns.
int choose_slot(char *acceptfile, AreaName &slot)
{
    if (kesta::is_slot_name(AreaName(acceptfile).c_str())) {
        TRACE(4, "[merge_file2accept] acceptfile(arg)=%s", AreaName(acceptfile).c_str());
        slot.copy_in(acceptfile);
        return KESTA_OK;
    }
    const int result = kesta::read_accept_slot_name(slot);
    if (result != KESTA_OK) {
        TRACE(1, "[merge_file2accept] Get Accept area file name ERROR result=%d", result);
        return KESTA_ERR;
    }
    slot.copy_out(acceptfile);
    TRACE(3, "[merge_file2accept] acceptfile(sysvol)=%s", slot.c_str());
    return KESTA_OK;
}

}  // namespace

int kestal_merge_file2accept(char *acceptfile)
{
    TRACE(5, "[merge_file2accept] START");
    if (!acceptfile) {
        FAILURE(ARGUMENT, 0, 1, "[merge_file2accept] Argument ERROR(acceptfile=NULL)");
        return KESTA_ERR_ARGUMENT;
    }
    AreaName slot;
    if (choose_slot(acceptfile, slot) != KESTA_OK) {
        return KESTA_ERR;
    }
    TRACE(5, "[merge_file2accept] ACCEPT file=%s", slot.c_str());
    const kesta::Path source = kesta::path_of(KESTA_MERGE_CACHE, KESTA_BACKUP_ARCHIVE);
    TRACE(5, "[merge_file2accept] Tmp area path. t_name=%s", source.data());
    const int ret = kesta::archive_to_slot(source.data(), slot.c_str(), report_step);
    TRACE(5, "[merge_file2accept] END ret=%d", ret);
    return ret;
}
