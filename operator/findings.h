// What verify finds: every place read whole first, then for each subject which side is right, by what is recorded of
// its bytes, and the commands that mend it (finding.h).
#pragma once

#include "finding.h"

namespace engine {

// Changes nothing. Throws Failure: this controller's number can't be had, or a setting can't be used.
Findings find_all();

}  // namespace engine
