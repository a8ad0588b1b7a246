// What the library owns besides descriptors (scoped.h): each type lets go of its one resource on every way out.
#pragma once

#include <pthread.h>
#include <stdio.h>

#include <utility>

#include "fork_safety.h"
#include "kesta/alloc.h"
#include "scoped.h"

namespace kesta {

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
