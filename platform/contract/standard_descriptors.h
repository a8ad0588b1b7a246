// Descriptors 0, 1 and 2 belong to the program: what it prints goes there. A program may have been started
// with some of them closed, or close them; the next file to be opened gets such a number then, and what
// is printed would go into NV memory. So nothing of ours keeps a descriptor below 3, and our
// commands open /dev/null on what is closed before they do anything else.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <unistd.h>

namespace kesta {

inline constexpr int first_free_descriptor = STDERR_FILENO + 1;

// Gives an open descriptor a number that is not one of the standard ones. Returns it, or -1 with errno
// set; what is negative already is passed on. The old number is closed then in any case.
inline int above_standard(int fd)
{
    if (fd < 0 || fd >= first_free_descriptor) {
        return fd;
    }
    int cancel = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel);
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, first_free_descriptor);
    const int error = errno;
    (void)close(fd);  // nothing was written, and no lock is held yet
    errno = error;
    pthread_setcancelstate(cancel, nullptr);
    return moved;
}

// The same for a stream that has just been opened, and nothing read or written yet. Null with errno set
// if that fails; null is passed on.
inline FILE *above_standard(FILE *stream)
{
    if (!stream || fileno(stream) >= first_free_descriptor) {
        return stream;
    }
    int cancel = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel);
    const bool writes = (fcntl(fileno(stream), F_GETFL) & O_ACCMODE) != O_RDONLY;
    const int moved = fcntl(fileno(stream), F_DUPFD_CLOEXEC, first_free_descriptor);
    FILE *result = moved >= 0 ? fdopen(moved, writes ? "we" : "re") : nullptr;
    const int error = errno;
    if (!result && moved >= 0) {
        (void)close(moved);
    }
    (void)fclose(stream);
    errno = error;
    pthread_setcancelstate(cancel, nullptr);
    return result;
}

// For calls that open descriptors inside and keep them for themselves: while it lives, none of the
// standard ones is free. What it opens no started program inherits.
class StandardDescriptorsTaken {
public:
    StandardDescriptorsTaken()
    {
        for (int fd = 0; fd < first_free_descriptor; ++fd) {
            if (fcntl(fd, F_GETFD) < 0) {
                take();
                break;
            }
        }
    }
    ~StandardDescriptorsTaken()
    {
        int cancel = PTHREAD_CANCEL_ENABLE;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel);
        const int error = errno;
        for (int fd = 0; fd < first_free_descriptor; ++fd) {
            if (taken_[fd]) {
                (void)close(fd);
            }
        }
        errno = error;
        pthread_setcancelstate(cancel, nullptr);
    }
    StandardDescriptorsTaken(const StandardDescriptorsTaken &) = delete;
    StandardDescriptorsTaken &operator=(const StandardDescriptorsTaken &) = delete;

private:
    void take()
    {
        int cancel = PTHREAD_CANCEL_ENABLE;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel);
        const int error = errno;
        int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
        while (fd >= 0 && fd < first_free_descriptor) {
            taken_[fd] = true;
            fd = open("/dev/null", O_RDWR | O_CLOEXEC);
        }
        if (fd >= 0) {
            (void)close(fd);
        }
        errno = error;
        pthread_setcancelstate(cancel, nullptr);
    }

    bool taken_[first_free_descriptor] = {};
};

// For commands, first thing in main: /dev/null on those that are closed. They stay open, for what the
// command starts too. Where /dev/null can't be had, the command can't run.
inline void open_standard_descriptors()
{
    int fd = 0;
    while (fd >= 0 && fd < first_free_descriptor) {
        fd = fcntl(fd, F_GETFD) >= 0 ? fd + 1 : open("/dev/null", O_RDWR) + 1;
        if (fd == 0) {
            _exit(127);
        }
    }
}

}  // namespace kesta
