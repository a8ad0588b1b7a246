#include "sbacc.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "atomic_file.h"
#include "call_checks.h"
#include "faults.h"
#include "one_machine.h"
#include "opened_file.h"
#include "scoped.h"
#include "settings.h"

#define PLATFORM_API __attribute__((visibility("default")))

namespace {

using namespace embedded;
using namespace platform;

constexpr int max_handles = 64;
constexpr unsigned file_path_size = path_size + 128;
constexpr int handle_index_mask = 0xff;
constexpr int handle_generation_step = 0x100;
constexpr int handle_generations = 0x3fffff;

// One open file. What is written goes aside, and takes the file's place when it is closed.
struct OpenFile {
    bool used;
    bool writes;
    bool written;  // there is a temporary file
    int broken;    // errno of a write that failed: nothing is published
    int generation;
    int fd;  // the file as it was at opening, or the temporary file
    char name[backup_name_size];
    char temporary[file_path_size];
};

OpenFile files[max_handles];
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;

// A child made by fork must not find the mutex locked by a thread that it doesn't have.
void lock_for_fork() { pthread_mutex_lock(&mutex); }
void unlock_after_fork() { pthread_mutex_unlock(&mutex); }
// When the library is loaded: a fork that has begun by the first use would not know of it.
__attribute__((constructor)) void handle_fork() { pthread_atfork(lock_for_fork, unlock_after_fork, unlock_after_fork); }

void file_path(char (&path)[file_path_size], const char *name)
{
    snprintf(path, sizeof(path), "%s/%s", settings().sysback_dir, name);
}

// The recorded size lives in a file of its own, which goes before new contents come: so it never
// speaks of other contents than it was recorded for.
void size_path(char (&path)[file_path_size], const char *name)
{
    snprintf(path, sizeof(path), "%s/.%s.size", settings().sysback_dir, name);
}

// The open file of a handle, or null for a number that is no open handle. A handle belongs to one
// thread at a time, so its file is used without the mutex.
OpenFile *file_of(int handle)
{
    const kesta::Locked locked(mutex);
    const int index = handle & handle_index_mask;
    if (handle < 0 || index >= max_handles) {
        return nullptr;
    }
    OpenFile &file = files[index];
    return file.used && file.generation == handle / handle_generation_step ? &file : nullptr;
}

void release_handle(OpenFile &file)
{
    const kesta::Locked locked(mutex);
    file.used = false;
}

int new_handle(const char *name, bool writes, int fd)
{
    const kesta::Locked locked(mutex);
    for (int i = 0; i < max_handles; ++i) {
        OpenFile &file = files[i];
        if (!file.used) {
            const int generation = file.generation % handle_generations + 1;
            file = {};
            file.used = true;
            file.writes = writes;
            file.generation = generation;
            file.fd = fd;
            snprintf(file.name, sizeof(file.name), "%s", name);
            return generation * handle_generation_step + i;
        }
    }
    return -EMFILE;
}

// Removes what writers left behind that died before they closed: nobody holds a lock on it.
void remove_abandoned(const char *name)
{
    char prefix[backup_name_size + 8];
    snprintf(prefix, sizeof(prefix), ".%s.tmp.", name);
    kesta::UniqueFd opened(open(settings().sysback_dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    DIR *folder = opened ? fdopendir(opened.get()) : nullptr;
    if (!folder) {
        return;
    }
    (void)opened.release();  // the folder's now
    while (const struct dirent *entry = readdir(folder)) {
        if (strncmp(entry->d_name, prefix, strlen(prefix)) != 0) {
            continue;
        }
        const kesta::UniqueFd fd(openat(dirfd(folder), entry->d_name, O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
        if (fd && flock(fd.get(), LOCK_EX | LOCK_NB) == 0) {
            (void)unlinkat(dirfd(folder), entry->d_name, 0);  // best effort: the next one tries again
        }
    }
    (void)closedir(folder);  // read only
}

int open_to_read(const char *name)
{
    char path[file_path_size];
    file_path(path, name);
    kesta::UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!fd) {
        return -errno;
    }
    struct stat status;
    if (fstat(fd.get(), &status) != 0) {
        return -errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return -EISDIR;
    }
    const int handle = new_handle(name, false, fd.get());
    if (handle >= 0) {
        (void)fd.release();
    }
    return handle;
}

int open_to_write(const char *name)
{
    struct stat status;
    if (stat(settings().sysback_dir, &status) != 0) {
        return -errno;
    }
    char path[file_path_size];
    file_path(path, name);
    if (stat(path, &status) == 0 && !S_ISREG(status.st_mode)) {
        return -EISDIR;
    }
    return new_handle(name, true, -1);
}

// Starts the temporary file at the first write.
int begin_writing(OpenFile &file)
{
    if (file.written) {
        return 0;
    }
    remove_abandoned(file.name);
    char path[file_path_size];
    file_path(path, file.name);
    const int fd = create_beside(path, file.temporary, sizeof(file.temporary));
    if (fd < 0) {
        return fd;
    }
    (void)flock(fd, LOCK_EX | LOCK_NB);  // marks the file as not abandoned
    file.fd = fd;
    file.written = true;
    return 0;
}

int remove_recorded_size(const char *name)
{
    char path[file_path_size];
    size_path(path, name);
    if (unlink(path) != 0) {
        return errno == ENOENT ? 0 : -errno;
    }
    return flush_folder_of(path);
}

int publish(OpenFile &file)
{
    char path[file_path_size];
    file_path(path, file.name);
    int result = file.broken != 0 ? -file.broken : 0;
    if (result == 0 && fchmod(file.fd, 0644) != 0) {
        result = -errno;
    }
    if (result == 0) {
        result = remove_recorded_size(file.name);
    }
    if (result != 0) {
        (void)unlink(file.temporary);  // best effort: the failure is told
        return result;
    }
    return publish_file(file.fd, file.temporary, path);
}

// The recorded size; without a record, the length.
int read_recorded_size(const OpenFile &file)
{
    char path[file_path_size];
    size_path(path, file.name);
    FILE *record = kesta::above_standard(kesta::open_stream(path));
    if (!record) {
        struct stat status;
        if (fstat(file.fd, &status) != 0) {
            return -errno;
        }
        return status.st_size <= INT_MAX ? static_cast<int>(status.st_size) : -EFBIG;
    }
    unsigned size = 0;
    const int fields = fscanf(record, "%u", &size);
    (void)fclose(record);  // read only
    return fields == 1 && size <= INT_MAX ? static_cast<int>(size) : -EIO;
}

// Whether the file that is open is still the one that its name stands for.
bool is_still_named(const OpenFile &file)
{
    char path[file_path_size];
    file_path(path, file.name);
    struct stat mine;
    struct stat named;
    return fstat(file.fd, &mine) == 0 && stat(path, &named) == 0 && mine.st_ino == named.st_ino &&
           mine.st_dev == named.st_dev;
}

int length_of(const OpenFile &file)
{
    struct stat status;
    if (fstat(file.fd, &status) != 0) {
        return -errno;
    }
    return status.st_size <= INT_MAX ? static_cast<int>(status.st_size) : -EFBIG;
}

struct Transfer {
    unsigned long size;
    long offset;
};

// Bytes transferred; fewer than asked for at the end of the file.
int read_all(int fd, char *to, Transfer transfer)
{
    unsigned long done = 0;
    while (done < transfer.size) {
        const ssize_t bytes = pread(fd, to + done, transfer.size - done, transfer.offset + static_cast<long>(done));
        if (bytes < 0 && errno == EINTR) {
            continue;
        }
        if (bytes < 0) {
            return -errno;
        }
        if (bytes == 0) {
            break;
        }
        done += static_cast<unsigned long>(bytes);
    }
    return static_cast<int>(done);
}

}  // namespace

PLATFORM_API int sbacc_open(const char *name, const char *mode, int *handle, int *close_flag)
{
    if (!is_backup_name(name) || !is_open_mode(mode) || !handle || !close_flag) {
        return -EINVAL;
    }
    const Fault fault = meet_fault("sb_open");
    if (fault.action == FaultAction::fail) {
        return -fault.value;
    }
    const kesta::CancelOff off;
    if (const int refused = check_one_machine(settings().sysback_dir); refused != 0) {
        tell_refused("sysback_dir", settings().sysback_dir);
        return refused;
    }
    const int result = mode[0] == 'r' ? open_to_read(name) : open_to_write(name);
    if (result < 0) {
        return result;
    }
    *handle = result;
    *close_flag = fault.action == FaultAction::close_flag ? 0 : 1;
    return 0;
}

PLATFORM_API int sbacc_read(void *buffer, unsigned int size, unsigned int offset, int handle)
{
    const Fault fault = meet_fault("sb_read");
    if (fault.action == FaultAction::fail) {
        return -fault.value;
    }
    const OpenFile *file = file_of(handle);
    if (!file || file->writes || !buffer || size > INT_MAX) {
        return -EINVAL;
    }
    return read_all(file->fd, static_cast<char *>(buffer), {limited(size, fault), offset});
}

PLATFORM_API int sbacc_write(const void *buffer, unsigned int size, unsigned int offset, int handle)
{
    const Fault fault = meet_fault("sb_write");
    const kesta::CancelOff off;
    OpenFile *file = file_of(handle);
    if (!file || !file->writes || !buffer || size > INT_MAX) {
        return -EINVAL;
    }
    int result = fault.action == FaultAction::fail ? -fault.value : begin_writing(*file);
    const unsigned granted = limited(size, fault);
    if (result == 0) {
        result = write_all(file->fd, buffer, granted, offset);
    }
    if (result != 0) {
        file->broken = -result;
        return result;
    }
    if (granted < size) {
        file->broken = EIO;
    }
    return static_cast<int>(granted);
}

PLATFORM_API int sbacc_read_size(int handle)
{
    if (const int failed = failure_of("sb_size"); failed != 0) {
        return failed;
    }
    const kesta::CancelOff off;
    const OpenFile *file = file_of(handle);
    if (!file || file->writes) {
        return -EINVAL;
    }
    // A file that was replaced since it was opened is read as it was: its length is its size.
    const int size = read_recorded_size(*file);
    return is_still_named(*file) ? size : length_of(*file);
}

PLATFORM_API int sbacc_write_size(unsigned int size, int handle)
{
    if (const int failed = failure_of("sb_write_size"); failed != 0) {
        return failed;
    }
    const kesta::CancelOff off;
    const OpenFile *file = file_of(handle);
    if (!file || !file->writes || file->written || size > INT_MAX) {
        return -EINVAL;
    }
    char path[file_path_size];
    file_path(path, file->name);
    struct stat status;
    if (stat(path, &status) != 0) {
        return -errno;
    }
    if (status.st_size == static_cast<off_t>(size)) {
        return remove_recorded_size(file->name);  // the length says it already
    }
    size_path(path, file->name);
    char text[16];
    const int length = snprintf(text, sizeof(text), "%u\n", size);
    return replace_file(path, text, static_cast<unsigned>(length));
}

PLATFORM_API int sbacc_close(int handle)
{
    const int failed = failure_of("sb_close");
    const kesta::CancelOff off;
    OpenFile *file = file_of(handle);
    if (!file) {
        return -EINVAL;
    }
    int result = failed;
    if (file->written) {
        if (failed != 0) {
            file->broken = -failed;
        }
        result = publish(*file);
    }
    if (file->fd >= 0 && close(file->fd) != 0 && result == 0) {
        result = -errno;
    }
    release_handle(*file);
    return result;
}
