#include "archive_to_slot.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "kesta/alloc.h"
#include "kesta/area_files.h"
#include "large_buffer.h"
#include "opened_file.h"
#include "ownership.h"

namespace kesta {

int archive_to_slot(const char *file, const char *slot, ReportStep report)
{
    const auto fail = [&](ToSlotStep step, unsigned int size) {
        report(step, file, slot, size, errno);
        return KESTA_ERR;
    };
    unsigned int size = 0;
    if (kestal_get_file_size(file, &size) < 0) {
        return fail(ToSlotStep::measure, 0);
    }
    TrackedBuffer data(kestal_malloc_debug(static_cast<int>(size), __FILE__, __LINE__, 0));
    if (!data) {
        return fail(ToSlotStep::allocate, size);
    }
    prefer_huge_pages(data.get(), size);
    {
        UniqueFd archive(open_at_once(file, O_RDWR));
        if (!archive) {
            return fail(ToSlotStep::open, size);
        }
        if (read(archive.get(), data.get(), size) < 0) {
            return fail(ToSlotStep::read, size);
        }
    }
    report(ToSlotStep::announce, file, slot, size, 0);
    if (kestal_backup_rw(slot, KESTA_FILE_WRITE, data.out(), &size) != KESTA_OK) {
        return fail(ToSlotStep::write, size);
    }
    return KESTA_OK;
}

}  // namespace kesta
