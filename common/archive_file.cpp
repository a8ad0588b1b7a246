#include "archive_file.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "storage_places.h"

namespace kesta {

int open_for_overwrite(const char *path)
{
    return open(path, O_WRONLY | O_CREAT | O_CLOEXEC, new_archive_mode);
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
