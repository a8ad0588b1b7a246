// Whether the last change of this controller can be taken back.
#pragma once

#include "change_log.h"

namespace engine {

// The last one that changed something, if all that it replaced was kept, and what it left is there as it was left. Throws
// Failure: there is none, or it can't be undone, and why.
Change undoable_change();

}  // namespace engine
