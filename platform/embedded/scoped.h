// What the platform's functions hold for the length of a scope.
#pragma once

#include <errno.h>
#include <pthread.h>
#include <unistd.h>

#include "standard_descriptors.h"

namespace embedded {

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

class Fd {
public:
    explicit Fd(int fd = -1) : fd_(kesta::above_standard(fd)) {}
    ~Fd()
    {
        const CancelOff off;
        const int before = errno;
        (void)close();
        errno = before;
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release()
    {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    int close()
    {
        const int fd = release();
        return fd >= 0 ? ::close(fd) : 0;
    }

private:
    int fd_;
};

}  // namespace embedded
