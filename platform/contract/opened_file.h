// Files at fixed paths: the version, settings, archives. Somebody may have planted a FIFO there, and whoever opened it
// would wait for its other end with locks held. These wait for nobody. A link is followed: in root's own folders it is
// root's; so is a device, which doesn't wait.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "scoped.h"

namespace kesta {

// Whether opening it may wait for somebody else.
inline bool may_wait(const char *path)
{
    struct stat status;
    const ErrnoKept keep;
    return fstatat(AT_FDCWD, path, &status, 0) == 0 && S_ISFIFO(status.st_mode);
}

// A stream that reads, close-on-exec, or null with errno: EINVAL for what may wait.
inline FILE *open_stream(const char *path)
{
    if (may_wait(path)) {
        errno = EINVAL;
        return nullptr;
    }
    return fopen(path, "re");
}

// A descriptor, close-on-exec, or -1 with errno: EINVAL for a FIFO that has its other end.
inline int open_at_once(const char *path, int flags, mode_t mode = 0)
{
    UniqueFd file(open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode));
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0) {
        return -1;
    }
    if (S_ISFIFO(status.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    return file.release();
}

}  // namespace kesta
