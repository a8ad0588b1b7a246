// Plain files in a folder whose contents came from elsewhere.
#pragma once

#include <stdio.h>
#include <sys/types.h>

namespace kesta {

// Opens a plain file below a folder, by descriptor: no link is followed on the way or at its end, nothing is
// waited for, and a file with a second name elsewhere is refused. It is cut only when it has been looked at.
// Close-on-exec. Returns the descriptor, or -1 with errno.
int open_plain_below(const char *folder, const char *path, int flags, mode_t mode);

// A stream that reads a descriptor and owns it. Null for -1, and where there is no memory.
FILE *stream_of(int fd);

}  // namespace kesta
