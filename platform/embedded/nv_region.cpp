#include "nv_region.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "atomic_file.h"
#include "faults.h"
#include "scoped.h"
#include "settings.h"

namespace embedded {
namespace {

// The journal: what is being written, and whether it holds. A transfer whose writer was killed
// before it held never happened; one that held is finished by whoever comes next.
struct JournalHeader {
    uint32_t holds;
    uint32_t unused;
    uint64_t offset;
    uint64_t length;
};

constexpr uint32_t journal_empty = 0;
constexpr uint32_t journal_holds = 0x4A4E4C31;  // "1LNJ"
constexpr uint64_t payload_offset = 4096;  // a page of its own: the header is flushed by itself
constexpr uint64_t journal_size = payload_offset + nv_region_size;

// The order of stores as another process sees them after this one was killed.
void order_stores() { __atomic_thread_fence(__ATOMIC_SEQ_CST); }

void set_journal(unsigned char *journal, uint32_t state)
{
    order_stores();
    __atomic_store_n(reinterpret_cast<uint32_t *>(journal), state, __ATOMIC_RELEASE);
    order_stores();
}

uint32_t journal_state(const unsigned char *journal)
{
    return __atomic_load_n(reinterpret_cast<const uint32_t *>(journal), __ATOMIC_ACQUIRE);
}

bool survives_power_cuts() { return settings().nv_sync != 0; }

// Makes part of a mapped file reach the disk, where the settings ask for it.
int flush(unsigned char *bytes, uint64_t size)
{
    if (!survives_power_cuts()) {
        return 0;
    }
    return msync(bytes, size, MS_SYNC) == 0 ? 0 : -errno;
}

// A lock of this process on a file. Threads are kept apart by the caller.
class FileLock {
public:
    explicit FileLock(int fd) : fd_(fd) {}
    ~FileLock() { (void)set(F_UNLCK); }
    FileLock(const FileLock &) = delete;
    FileLock &operator=(const FileLock &) = delete;

    int set(short type)
    {
        struct flock lock {};
        lock.l_type = type;
        lock.l_whence = SEEK_SET;
        while (fcntl(fd_, F_SETLKW, &lock) != 0) {
            if (errno == EDEADLK) {
                usleep(1000);  // the kernel guesses from other threads' locks: nothing waits here
            } else if (errno != EINTR) {
                return -errno;
            }
        }
        return 0;
    }

private:
    int fd_;
};

// The copy is made in two halves, with a point between them at which a test can kill the process.
void copy_in(unsigned char *to, const void *from, uint64_t length)
{
    const uint64_t half = length / 2;
    memcpy(to, from, half);
    (void)meet_fault("nv_write_mid");
    memcpy(to + half, static_cast<const unsigned char *>(from) + half, length - half);
}

}  // namespace

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
    Fd fd(open(path, O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0), 0600));
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

int NvRegion::attach(unsigned number, bool create)
{
    if (image_.is_current() && journal_.is_current()) {
        return 0;
    }
    char image[path_size + 32];
    char journal[path_size + 32];
    snprintf(image, sizeof(image), "%s/region%u.img", settings().nv_dir, number);
    snprintf(journal, sizeof(journal), "%s/region%u.jnl", settings().nv_dir, number);
    int result = image_.attach(image, nv_region_size, create);
    if (result == 0) {
        result = journal_.attach(journal, journal_size, true);
    }
    if (result == 0 && survives_power_cuts()) {
        result = flush_folder_of(image);  // whoever made the files: they are found again
    }
    if (result != 0) {
        detach();
    }
    return result;
}

void NvRegion::detach()
{
    image_.detach();
    journal_.detach();
}

int NvRegion::finish_interrupted_transfer()
{
    unsigned char *journal = journal_.bytes();
    if (journal_state(journal) != journal_holds) {
        return 0;
    }
    JournalHeader header;
    memcpy(&header, journal, sizeof(header));
    if (header.length <= nv_region_size && header.offset <= nv_region_size - header.length) {
        memcpy(image_.bytes() + header.offset, journal + payload_offset, header.length);
        const int result = flush(image_.bytes(), nv_region_size);
        if (result != 0) {
            return result;
        }
    }
    set_journal(journal, journal_empty);
    return 0;
}

int NvRegion::read(unsigned number, uint64_t offset, void *buffer, uint64_t length)
{
    int result = attach(number, false);
    if (result == -ENOENT && access(settings().nv_dir, F_OK) == 0) {
        memset(buffer, 0, length);  // never written
        return 0;
    }
    if (result != 0) {
        return result;
    }
    FileLock lock(journal_.fd());
    result = lock.set(F_RDLCK);
    if (result == 0 && journal_state(journal_.bytes()) == journal_holds) {
        result = lock.set(F_WRLCK);
        if (result == 0) {
            (void)finish_interrupted_transfer();  // unflushed it stays in the journal: it is whole
        }
    }
    if (result == 0) {
        memcpy(buffer, image_.bytes() + offset, length);
    }
    return result;
}

int NvRegion::write(unsigned number, uint64_t offset, const void *buffer, uint64_t length)
{
    int result = attach(number, true);
    if (result != 0) {
        return result;
    }
    FileLock lock(journal_.fd());
    result = lock.set(F_WRLCK);
    if (result == 0) {
        result = finish_interrupted_transfer();
    }
    if (result == 0) {
        result = put_into_journal(offset, buffer, length);
    }
    if (result != 0) {
        return result;
    }
    copy_in(image_.bytes() + offset, buffer, length);
    result = flush(image_.bytes(), nv_region_size);
    if (result == 0) {
        set_journal(journal_.bytes(), journal_empty);
    }
    return result;
}

int NvRegion::put_into_journal(uint64_t offset, const void *buffer, uint64_t length)
{
    unsigned char *journal = journal_.bytes();
    // On the disk the journal may still hold the last transfer: not with the place or the payload of
    // this one.
    int result = flush(journal, payload_offset);
    if (result != 0) {
        return result;
    }
    const JournalHeader header{journal_empty, 0, offset, length};
    memcpy(journal, &header, sizeof(header));
    copy_in(journal + payload_offset, buffer, length);
    result = flush(journal, journal_size);
    if (result != 0) {
        return result;
    }
    set_journal(journal, journal_holds);
    result = flush(journal, payload_offset);
    if (result != 0) {
        set_journal(journal, journal_empty);
    }
    return result;
}

}  // namespace embedded
