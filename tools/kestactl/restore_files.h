// kestactl restore, by the definition: the group's files put back from a slot.
#pragma once

#include "environment_work.h"
#include "restore_options.h"

namespace kestactl {

// Throws Failure.
Result restore_files(const RestoreFilesOptions &options, const Globals &globals);

}  // namespace kestactl
