// What single commands find, for those who show all of it.
#pragma once

#include "command.h"

namespace kestactl {

// kestactl status: with checksums, every archive is read.
Result show_status(bool checksums);

// kestactl verify, without --fix.
Result verify_places(bool drift_counts = false);

// kestactl nv verify.
Result show_mirror();

// kestactl identity show.
Result show_identity();

// kestactl history.
Result show_history();

// kestactl version show.
Result show_versions();

// kestactl nv dump --decoded.
Result decode_image();

}  // namespace kestactl
