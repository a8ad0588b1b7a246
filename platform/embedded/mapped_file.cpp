#include "mapped_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "scoped.h"

namespace embedded {

bool MappedFile::is_current() const
{
    struct stat mine;
    return bytes_ && fstat(fd_, &mine) == 0 && mine.st_dev == device_ && mine.st_ino == inode_ &&
           mine.st_size == static_cast<off_t>(size_) && mine.st_nlink > 0;
}

void MappedFile::detach()
{
    if (bytes_) {
        munmap(bytes_, size_);
        bytes_ = nullptr;
    }
    struct stat mine;
    if (fd_ >= 0 && fstat(fd_, &mine) == 0 && mine.st_dev == device_ && mine.st_ino == inode_) {
        (void)close(fd_);  // still ours: a number that the program has reused stays open
    }
    fd_ = -1;
}

int MappedFile::attach(const char *path, uint64_t size, bool create)
{
    detach();
    kesta::UniqueFd fd(open(path, O_RDWR | O_CLOEXEC | O_NOFOLLOW | (create ? O_CREAT : 0), 0600));
    if (!fd) {
        return -errno;
    }
    struct stat status;
    if (fstat(fd.get(), &status) != 0) {
        return -errno;
    }
    if (status.st_size == 0) {
        if (!create) {
            return -ENOENT;
        }
        // All blocks at once: a full disk is found here, and not when the mapping is written.
        const int error = posix_fallocate(fd.get(), 0, static_cast<off_t>(size));
        if (error != 0) {
            return -error;
        }
    } else if (status.st_size != static_cast<off_t>(size)) {
        return -EIO;
    }
    void *bytes = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (bytes == MAP_FAILED) {
        return -errno;
    }
    bytes_ = static_cast<unsigned char *>(bytes);
    size_ = size;
    device_ = status.st_dev;
    inode_ = status.st_ino;
    fd_ = fd.release();
    return 0;
}

void MappedFile::look_like(const MappedFile &other) const
{
    struct stat status;
    if (fstat(other.fd_, &status) == 0) {
        // Best effort: a process that may not do so has files of its own user and mode already.
        [[maybe_unused]] const bool done =
            fchown(fd_, status.st_uid, status.st_gid) == 0 && fchmod(fd_, status.st_mode & 0777) == 0;
    }
}

}  // namespace embedded
