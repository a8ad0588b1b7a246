#include "atomic_file.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "scoped.h"

namespace platform {
namespace {

constexpr unsigned folder_size = 1024;

// The folder of a path, and the name in it.
const char *split_path(const char *path, char (&folder)[folder_size])
{
    const char *slash = strrchr(path, '/');
    if (!slash) {
        snprintf(folder, sizeof(folder), ".");
        return path;
    }
    const int length = slash == path ? 1 : static_cast<int>(slash - path);
    snprintf(folder, sizeof(folder), "%.*s", length, path);
    return slash + 1;
}

}  // namespace

int flush_folder_of(const char *path)
{
    char folder[folder_size];
    split_path(path, folder);
    const kesta::UniqueFd fd(open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd) {
        return -errno;
    }
    return fsync(fd.get()) == 0 ? 0 : -errno;
}

int create_beside(const char *path, char *temporary, unsigned size)
{
    char folder[folder_size];
    const char *name = split_path(path, folder);
    const int length = snprintf(temporary, size, "%s/.%s.tmp.XXXXXX", folder, name);
    if (length < 0 || static_cast<unsigned>(length) >= size) {
        return -ENAMETOOLONG;
    }
    const int fd = kesta::above_standard(mkostemp(temporary, O_CLOEXEC));
    return fd >= 0 ? fd : -errno;
}

int write_all(int fd, const void *data, unsigned long size, long offset)
{
    constexpr unsigned long portion = 8UL << 20;
    const char *from = static_cast<const char *>(data);
    while (size > 0) {
        const ssize_t written = pwrite(fd, from, size < portion ? size : portion, offset);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -errno;
        }
        if (size > portion) {
            // The disk begins while the rest is copied. Advice only: the flush tells of failures.
            (void)sync_file_range(fd, offset, written, SYNC_FILE_RANGE_WRITE);
        }
        from += written;
        offset += written;
        size -= static_cast<unsigned long>(written);
    }
    return 0;
}

int publish_file(int fd, const char *temporary, const char *path)
{
    if (fsync(fd) != 0 || rename(temporary, path) != 0) {
        const int error = errno;
        (void)unlink(temporary);  // best effort: the failure has been told
        return -error;
    }
    return flush_folder_of(path);
}

int replace_file(const char *path, const char *text, unsigned length)
{
    const kesta::CancelOff off;
    char temporary[folder_size];
    const kesta::UniqueFd fd(create_beside(path, temporary, sizeof(temporary)));
    if (!fd) {
        return fd.get();
    }
    int result = write_all(fd.get(), text, length, 0);
    if (result == 0 && fchmod(fd.get(), 0644) != 0) {
        result = -errno;
    }
    if (result != 0) {
        (void)unlink(temporary);  // best effort: the failure has been told
        return result;
    }
    return publish_file(fd.get(), temporary, path);
}

}  // namespace platform
