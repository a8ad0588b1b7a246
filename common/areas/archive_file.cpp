#include "archive_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "storage_places.h"

namespace kesta {

namespace {

constexpr int overwrite_flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

bool is_plain_file(int fd)
{
    struct stat status;
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

int open_for_overwrite(const char *path)
{
    UniqueFd file(open(path, overwrite_flags, new_archive_mode));
    const bool planted = file ? !is_plain_file(file.get()) : errno == ELOOP || errno == ENXIO;
    if (planted) {
        (void)file.close();  // nothing was written to it
        (void)unlink(path);  // if it stays, the next line says so
        return open(path, overwrite_flags | O_EXCL, new_archive_mode);
    }
    return file.release();
}

WriteOutcome write_and_close(UniqueFd &file, const void *data, unsigned int size, Flush flush)
{
    const ssize_t written = write(file.get(), data, size);
    WriteOutcome outcome{written, errno, written == static_cast<ssize_t>(size)};
    if (!outcome.complete) {
        (void)file.close();  // the write has failed already
        return outcome;
    }
    if (flush == Flush::to_disk && fsync(file.get()) != 0) {
        outcome = {-1, errno, false};
    }
    if (file.close() != 0 && outcome.complete) {
        outcome = {-1, errno, false};
    }
    return outcome;
}

}  // namespace kesta
