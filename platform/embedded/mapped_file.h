// A file of a fixed size, mapped whole.
#pragma once

#include <stdint.h>
#include <sys/types.h>

namespace embedded {

class MappedFile {
public:
    // Whether the file is attached and stands for itself still: not after somebody removed or
    // replaced it, nor after a program that closes all its descriptors closed ours.
    bool is_current() const;

    // Opens the file anew; a missing one is created, filled with zeros, if create is set.
    // Returns 0, or a negative errno (-ENOENT: missing, and not to be created).
    int attach(const char *path, uint64_t size, bool create);

    void detach();

    // Gives the file the owner and the mode of another one, as far as that goes.
    void look_like(const MappedFile &other) const;
    int fd() const { return fd_; }
    unsigned char *bytes() const { return bytes_; }

private:
    int fd_ = -1;
    unsigned char *bytes_ = nullptr;
    uint64_t size_ = 0;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

}  // namespace embedded
