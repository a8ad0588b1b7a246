// NV memory of the test platform, shared with the processes that a test forks.
#pragma once

#include <pthread.h>
#include <sys/mman.h>

#include <cstddef>
#include <cstring>
#include <new>

namespace test {

class NvMemory {
public:
    static constexpr std::size_t region_size = 32768;

    NvMemory()
        : shared_(static_cast<Shared *>(
              mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
    {
        if (shared_ == MAP_FAILED) {
            throw std::bad_alloc();
        }
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
        pthread_mutex_init(&shared_->mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~NvMemory() { munmap(shared_, sizeof(Shared)); }
    NvMemory(const NvMemory &) = delete;
    NvMemory &operator=(const NvMemory &) = delete;

    unsigned char *data() { return shared_->bytes; }
    const unsigned char *data() const { return shared_->bytes; }
    static constexpr std::size_t size() { return region_size; }
    void clear() { memset(shared_->bytes, 0, region_size); }

    // One transfer, seen whole or not at all.
    void transfer(bool writes, std::size_t offset, void *buffer, std::size_t length)
    {
        pthread_mutex_lock(&shared_->mutex);
        if (writes) {
            memcpy(shared_->bytes + offset, buffer, length);
        } else {
            memcpy(buffer, shared_->bytes + offset, length);
        }
        pthread_mutex_unlock(&shared_->mutex);
    }

private:
    struct Shared {
        pthread_mutex_t mutex;
        unsigned char bytes[region_size];
    };
    Shared *shared_;
};

}  // namespace test
