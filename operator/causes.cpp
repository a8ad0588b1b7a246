#include "causes.h"

#include <errno.h>

#include <string_view>

namespace engine {

bool is_of_the_area(const KESTA_CAUSE &cause) { return std::string_view(cause.function) == "kestal_backup_rw"; }

bool slot_file_is_absent()
{
    const KESTA_CAUSE *cause = kesta_last_cause();
    return cause->kind == KESTA_CAUSE_PLATFORM && cause->number == -ENOENT && is_of_the_area(*cause);
}

bool area_failed() { return is_of_the_area(*kesta_last_cause()) && !slot_file_is_absent(); }

bool failed_but_for_absence() { return kesta_last_cause()->kind != KESTA_CAUSE_NONE && !slot_file_is_absent(); }

bool inner_lock_was_held()
{
    const KESTA_CAUSE *cause = kesta_last_cause();
    return cause->kind == KESTA_CAUSE_LOCKED && std::string_view(cause->function) == "kestal_cntl_innerlock";
}

}  // namespace engine
