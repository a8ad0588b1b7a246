// Small types that own one resource each, and let go of it on every way out: a return, an
// exception, or the unwinding of a cancelled thread.
//
// A destructor that may reach a cancellation point turns cancellation off first: a thread
// cancelled inside a destructor would end the process.
#pragma once

#include <pthread.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "fork_safety.h"
#include "kesta/alloc.h"
#include "standard_descriptors.h"

namespace kesta {

// Cancellation is off for the life of the object, and then as it was before.
class CancelOff {
public:
    CancelOff() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~CancelOff() { pthread_setcancelstate(before_, nullptr); }
    CancelOff(const CancelOff &) = delete;
    CancelOff &operator=(const CancelOff &) = delete;

private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

class MutexGuard {
public:
    explicit MutexGuard(pthread_mutex_t &mutex) : mutex_(&mutex)
    {
        free_mutexes_in_children();
        pthread_mutex_lock(mutex_);
    }
    ~MutexGuard() { pthread_mutex_unlock(mutex_); }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

private:
    pthread_mutex_t *mutex_;
};

class ErrnoKept {
public:
    ErrnoKept() : saved_(errno) {}
    ~ErrnoKept() { errno = saved_; }
    ErrnoKept(const ErrnoKept &) = delete;
    ErrnoKept &operator=(const ErrnoKept &) = delete;

private:
    int saved_;
};

class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) : fd_(above_standard(fd)) {}
    ~UniqueFd()
    {
        ErrnoKept keep;
        close();
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

    // Hands the descriptor over.
    int release() { return std::exchange(fd_, -1); }

    // Closes now. Returns what close() returned; 0 if nothing was open. Never retried.
    int close()
    {
        CancelOff off;
        int fd = std::exchange(fd_, -1);
        return fd >= 0 ? ::close(fd) : 0;
    }

private:
    int fd_;
};

class FilePtr {
public:
    explicit FilePtr(FILE *stream = nullptr) : stream_(above_standard(stream)) {}
    ~FilePtr()
    {
        if (stream_) {
            CancelOff off;
            ErrnoKept keep;
            (void)fclose(stream_);  // read-only streams: nothing is buffered that could be lost
        }
    }
    FilePtr(const FilePtr &) = delete;
    FilePtr &operator=(const FilePtr &) = delete;

    FILE *get() const { return stream_; }
    explicit operator bool() const { return stream_ != nullptr; }

private:
    FILE *stream_;
};

// A buffer of the tracked allocator, handed over by a function that fills a pointer.
class TrackedBuffer {
public:
    explicit TrackedBuffer(void *data = nullptr) : data_(data) {}
    ~TrackedBuffer() { kestal_free_debug(data_, __FILE__, __LINE__, 0); }
    TrackedBuffer(const TrackedBuffer &) = delete;
    TrackedBuffer &operator=(const TrackedBuffer &) = delete;

    void *get() const { return data_; }
    void **out() { return &data_; }
    explicit operator bool() const { return data_ != nullptr; }
    void *release() { return std::exchange(data_, nullptr); }

private:
    void *data_;
};

}  // namespace kesta
