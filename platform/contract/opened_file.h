// Files at fixed paths: the version, settings, archives. Somebody may have planted a FIFO, a socket or a device there,
// and whoever opened it would wait for its other end with locks held. These open plain files and nothing else, and wait
// for nobody. A link is followed: in root's own folders it is root's.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "scoped.h"

namespace kesta {

// Whether opening it may wait for somebody else: it is there, and neither a plain file nor a folder.
inline bool may_wait(const char *path)
{
    struct stat status;
    const ErrnoKept keep;
    return fstatat(AT_FDCWD, path, &status, 0) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode);
}

// A stream that reads, close-on-exec, or null with errno: EINVAL for what may wait. A folder is opened, and can't be
// read: who reads tells these two apart.
inline FILE *open_stream(const char *path)
{
    if (may_wait(path)) {
        errno = EINVAL;
        return nullptr;
    }
    return fopen(path, "re");
}

// A descriptor, close-on-exec, or -1 with errno: EISDIR for a folder, EINVAL for any other thing that is no plain file.
inline int open_plain(const char *path, int flags, mode_t mode = 0)
{
    UniqueFd file(open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode));
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0) {
        return -1;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return -1;
    }
    return file.release();
}

}  // namespace kesta
