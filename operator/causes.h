// What the calling thread's last cause is. It is to be cleared before the call that is asked about.
#pragma once

#include <kesta/kesta.h>

namespace engine {

bool is_of_the_area(const KESTA_CAUSE &cause);  // the system backup area was met

bool slot_file_is_absent();     // the system backup area has no such file
bool area_failed();             // the system backup area failed, and not because it has no such file
bool failed_but_for_absence();  // anything failed, but for an absent file of the system backup area

// Whether the last failure was that the inner lock stayed held until all attempts were used up.
bool inner_lock_was_held();

}  // namespace engine
