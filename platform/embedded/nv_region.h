// One NV region kept in files: REGION.img holds its 32768 bytes, REGION.jnl the transfer under way.
#pragma once

#include <stdint.h>
#include <sys/types.h>

namespace embedded {

inline constexpr uint64_t nv_region_size = 32768;

// A file mapped whole.
class MappedFile {
public:
    // Whether the file is attached and stands for itself still: not after somebody removed or
    // replaced it, nor after a program that closes all its descriptors closed ours.
    bool is_current() const;

    // Opens the file anew; a missing one is created, filled with zeros, if create is set.
    // Returns 0, or a negative errno (-ENOENT: missing, and not to be created).
    int attach(const char *path, uint64_t size, bool create);

    void detach();
    int fd() const { return fd_; }
    unsigned char *bytes() const { return bytes_; }

private:
    int fd_ = -1;
    unsigned char *bytes_ = nullptr;
    uint64_t size_ = 0;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

class NvRegion {
public:
    // Return 0 or a negative errno. Range and region have been checked.
    int read(unsigned number, uint64_t offset, void *buffer, uint64_t length);
    int write(unsigned number, uint64_t offset, const void *buffer, uint64_t length);

private:
    int attach(unsigned number, bool create);
    void detach();

    // Each returns 0 or a negative errno, with the lock on the journal held for writing.
    int finish_interrupted_transfer();
    int put_into_journal(uint64_t offset, const void *buffer, uint64_t length);

    MappedFile image_;
    MappedFile journal_;
};

}  // namespace embedded
