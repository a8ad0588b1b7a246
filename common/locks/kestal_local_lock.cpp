#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kesta/local_lock.h"
#include "kesta/paths.h"
#include "ownership.h"
#include "storage_places.h"
#include "text_line.h"
#include "trace.h"

namespace {

constexpr int new_lock_mode = 0600;
constexpr int shared_lock_mode = 0666;  // for the commands of every user
constexpr off_t whole_file = 0;
constexpr int no_descriptor = -1;

bool fits_path(const char *directory, const char *name)
{
    return strlen(directory) + strlen(name) < kesta::Path{}.size();
}

// Opens a lock file, which somebody else may have put there: no link is followed, no FIFO waited for.
int open_lock_file(const char *path, int flags, int mode)
{
    return open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode);
}

// The file of a local lock. Its name is one word: one that leads to another folder is not there.
int open_local_lock(const kesta::Path &path, const char *name)
{
    if (strchr(name, '/')) {
        errno = ENOENT;
        return no_descriptor;
    }
    kesta::UniqueFd file(open_lock_file(path.data(), O_WRONLY | O_CREAT, new_lock_mode));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) {
        return no_descriptor;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return no_descriptor;
    }
    return file.release();
}

int write_line(int fd, const char *lock_identifier, const char *lock_name)
{
    const kesta::LineWritten line = kesta::write_line(fd, "%s\n", lock_identifier);
    if (!line.made) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_create_lock_file] Buffer Error.");
        return KESTA_ERR;
    }
    if (const kesta::TextWritten &result = line.text; !result.complete()) {
        FAILURE(SYSTEM, result.error, 1,
                "[kestal_create_lock_file] File Write Error lock_name=%s len=%d result=%d errno=%d", lock_name,
                result.length, result.written, result.error);
        return KESTA_ERR;
    }
    return KESTA_OK;
}

}  // namespace

int kestal_file_command_lock(int *fd, char *name)
{
    if (!fd) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_local_command_lock] File Descriptor Error.");
        return KESTA_ERR_ARGUMENT;
    }
    if (!name) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_local_command_lock] FileName Error.");
        return KESTA_ERR_ARGUMENT;
    }
    // Nothing here waits, and a descriptor that nobody knows yet must not be lost.
    const kesta::CancelOff off;
    *fd = no_descriptor;
    TRACE(5, "[kestal_local_command_lock] Local command lock Start.");
    if (!fits_path(KESTA_MERGE_CACHE, name)) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_local_command_lock] FileName Error.");
        return KESTA_ERR_ARGUMENT;
    }
    const kesta::Path path = kesta::path_of(KESTA_MERGE_CACHE, name);
    *fd = open_local_lock(path, name);
    if (*fd < 0) {
        SYSTEM_FAILURE(error, 1, "[kestal_local_command_lock] File Open Error. f_name=%s errno=%d", path.data(), error);
        return KESTA_ERR_LOCAL_LOCK;
    }
    if (chmod(path.data(), shared_lock_mode) != 0) {
        TRACE(4, "[kestal_local_command_lock] PERMISSION no-set. f_name=%s", path.data());
    }
    TRACE(5, "[kestal_local_command_lock] Lock File opened. f_name=%s", path.data());
    if (const int result = lockf(*fd, F_TLOCK, whole_file); result != 0) {
        TRACE(1, "[kestal_local_command_lock] File Lock Error. result=%d", result);
        (void)close(*fd);  // nothing was written; the number stays with the caller
        return KESTA_ERR_LOCAL_LOCK;
    }
    TRACE(5, "[kestal_local_command_lock] File(%s) Locked.", name);
    TRACE(5, "[kestal_local_command_lock] Local command lock End.");
    return KESTA_OK;
}

int kestal_file_command_unlock(int *fd)
{
    TRACE(5, "[kestal_local_command_unlock] Local command unlock Start.");
    if (!fd || *fd < 0) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_local_command_unlock] File Descriptor Error.");
        return KESTA_ERR_ARGUMENT;
    }
    if (const int result = lockf(*fd, F_ULOCK, whole_file); result != 0) {
        TRACE(1, "[kestal_local_command_unlock] File Unlock Error. result=%d", result);
        return KESTA_ERR_LOCAL_UNLOCK;
    }
    TRACE(5, "[kestal_local_command_unlock] Lock File Unlocked.");
    if (const int result = close(*fd); result != 0) {
        TRACE(1, "[kestal_local_command_unlock] File Close Error. result=%d", result);
        return KESTA_ERR_LOCAL_CLOSE;
    }
    TRACE(5, "[kestal_local_command_unlock] File closed.");
    TRACE(5, "[kestal_local_command_unlock] Local command lock. End.");
    return KESTA_OK;
}

int kestal_create_lock_file(const char *lock_identifier, const char *lock_name)
{
    TRACE(5, "[kestal_create_lock_file] create_lock_file Start.");
    if (!lock_identifier) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_create_lock_file] Argument Error.(lock_identifier=NULL).");
        return KESTA_ERR_ARGUMENT;
    }
    if (!lock_name) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_create_lock_file] Argument Error.(lock_name=NULL).");
        return KESTA_ERR_ARGUMENT;
    }
    int ret;
    {
        const kesta::UniqueFd file(open_lock_file(lock_name, O_WRONLY | O_CREAT | O_TRUNC, kesta::new_text_file_mode));
        if (!file) {
            SYSTEM_FAILURE(error, 1, "[kestal_create_lock_file] Lock File(%s) Open Error. errno=%d", lock_name, error);
            return KESTA_ERR;
        }
        ret = write_line(file.get(), lock_identifier, lock_name);
    }
    TRACE(5, "[kestal_create_lock_file] create_lock_file End.");
    return ret;
}

int kestal_read_lock_file(const char *file_name, char *buf, int size)
{
    const char *function = __func__;
    TRACE(5, "[%s] Read lock file Start.", function);
    if (!buf) {
        FAILURE(ARGUMENT, 0, 1, "[%s] Argument Error.(lock_identifier=NULL).", function);
        return KESTA_ERR_ARGUMENT;
    }
    if (!file_name) {
        FAILURE(ARGUMENT, 0, 1, "[%s] Argument Error.(file_name=NULL).", function);
        return KESTA_ERR_ARGUMENT;
    }
    if (size < KESTA_LOCK_FILE_BUFFER) {
        FAILURE(ARGUMENT, 0, 1, "[%s] buffer size Error. buf_size=%d", function, size);
        return KESTA_ERR;
    }
    {
        kesta::UniqueFd opened(open(file_name, O_RDONLY | O_NONBLOCK | O_CLOEXEC));  // waits for no FIFO
        const kesta::FilePtr file(opened ? fdopen(opened.get(), "r") : nullptr);
        const int error = errno;
        if (file) {
            (void)opened.release();
        } else {
            FAILURE(SYSTEM, error, 1, "[%s] Lock File(%s) Open Error. errno=%d", function, file_name, error);
            return KESTA_ERR;
        }
        (void)!fscanf(file.get(), "%10s", buf);  // an empty file leaves the buffer as it was
    }
    TRACE(5, "[%s] Read lock file End.", function);
    return KESTA_OK;
}
