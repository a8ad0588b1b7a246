// Small types that own one resource each, and let go of it on every way out: a return, an
// exception, or the unwinding of a cancelled thread. The library and the platforms share them.
//
// A destructor that may reach a cancellation point turns cancellation off first: a thread
// cancelled inside a destructor would end the process.
#pragma once

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

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

class Locked {
public:
    explicit Locked(pthread_mutex_t &mutex) : mutex_(&mutex) { pthread_mutex_lock(mutex_); }
    ~Locked() { pthread_mutex_unlock(mutex_); }
    Locked(const Locked &) = delete;
    Locked &operator=(const Locked &) = delete;

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

}  // namespace kesta
