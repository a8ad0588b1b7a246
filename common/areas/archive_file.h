// Whole archives in local files, read and written in one call, as the flows describe it.
#pragma once

#include <sys/types.h>

#include "ownership.h"

namespace kesta {

// Outcome of writing a whole buffer: fewer bytes than asked for is a failure.
struct WriteOutcome {
    ssize_t written;
    int error;  // errno of the call that failed
    bool complete;
};

enum class Flush {
    leave_to_system,
    to_disk,
};

// Opens write-only and creates with mode 0600. Not truncated on purpose: a longer file of an
// earlier, broken copy keeps its tail. What is no plain file is none of ours: it is neither written
// through nor waited for, and goes.
int open_for_overwrite(const char *path);

// Writes, flushes and closes. Only a write whose flush and close succeeded is complete: a full disk
// may show no earlier than there. A failed one fails the copy, on purpose: the source is still there, and
// the caller may try again; a copy that is called good and isn't would be lost with its source.
WriteOutcome write_and_close(UniqueFd &file, const void *data, unsigned int size, Flush flush);

}  // namespace kesta
