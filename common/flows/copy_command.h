// Copies of archives that a command line makes.
#pragma once

namespace kesta {

// Runs a command line that copies one file to another, and returns what it ended with. `cp` would wait where
// somebody planted a FIFO: in the place of the source it is not run, and has failed; in that of the copy the FIFO
// goes, as for every archive that is written.
int run_copy(const char *command, const char *from, const char *to);

}  // namespace kesta
