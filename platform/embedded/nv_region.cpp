#include "nv_region.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "atomic_file.h"
#include "faults.h"
#include "one_machine.h"
#include "scoped.h"
#include "settings.h"

namespace embedded {
namespace {

using namespace platform;

// The journal: what is being written, and whether it holds. A transfer whose writer was killed
// before it held never happened; one that held is finished by whoever comes next.
struct JournalHeader {
    uint32_t holds;
    uint32_t closed;  // the region has other files by now, or is about to get them
    uint64_t offset;
    uint64_t length;
    uint64_t steps;  // moves when a transfer begins, and when it has ended
};

constexpr uint32_t journal_empty = 0;
constexpr uint32_t journal_holds = 0x4A4E4C31;  // "1LNJ"
constexpr uint64_t payload_offset = 4096;       // a page of its own: the header is flushed by itself
constexpr uint64_t journal_size = payload_offset + nv_region_size;

constexpr int64_t longest_wait_ms = 1000;
constexpr int64_t stuck_after_ms = 3000;
constexpr long first_nap_ns = 50'000;
constexpr long longest_nap_ns = 2'000'000;

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

JournalHeader *header_of(const MappedFile &journal) { return reinterpret_cast<JournalHeader *>(journal.bytes()); }

// The mark and what it is set against are one order for all processes: whoever finishes a transfer
// without seeing the mark has finished before it was set.
void close_journal(const MappedFile &journal)
{
    __atomic_store_n(&header_of(journal)->closed, 1U, __ATOMIC_SEQ_CST);
    order_stores();
}

bool is_closed(const MappedFile &journal)
{
    order_stores();
    return __atomic_load_n(&header_of(journal)->closed, __ATOMIC_SEQ_CST) != 0;
}

uint64_t steps_of(const MappedFile &journal) { return __atomic_load_n(&header_of(journal)->steps, __ATOMIC_SEQ_CST); }

void move_step(const MappedFile &journal) { __atomic_fetch_add(&header_of(journal)->steps, 1, __ATOMIC_SEQ_CST); }

// The image has what the journal held.
void end_transfer(const MappedFile &journal)
{
    order_stores();
    move_step(journal);
    set_journal(journal.bytes(), journal_empty);
}

int64_t now_ms()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * INT64_C(1000) + now.tv_nsec / 1000000;
}

// A lock of this process on a file, or none. Threads are kept apart by the caller.
int set_lock(int fd, short type)
{
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    while (fcntl(fd, F_SETLK, &lock) != 0) {
        if (errno != EINTR) {
            return errno == EACCES ? -EAGAIN : -errno;
        }
    }
    return 0;
}

bool is_at(const MappedFile &file, const char *path)
{
    struct stat mine;
    struct stat named;
    return fstat(file.fd(), &mine) == 0 && stat(path, &named) == 0 && mine.st_dev == named.st_dev &&
           mine.st_ino == named.st_ino;
}

// The copy is made in two halves, with a point between them at which a test can kill the process.
void copy_in(unsigned char *to, const void *from, uint64_t length)
{
    const uint64_t half = length / 2;
    memcpy(to, from, half);
    (void)meet_fault("nv_write_mid");
    memcpy(to + half, static_cast<const unsigned char *>(from) + half, length - half);
}

}  // namespace

// Where the files of a region are, and its new ones while they are made.
struct NvRegion::Paths {
    explicit Paths(unsigned number)
    {
        const char *folder = settings().nv_dir;
        snprintf(image, sizeof(image), "%s/region%u.img", folder, number);
        snprintf(journal, sizeof(journal), "%s/region%u.jnl", folder, number);
        snprintf(new_image, sizeof(new_image), "%s/.region%u.img.new", folder, number);
        snprintf(new_journal, sizeof(new_journal), "%s/.region%u.jnl.new", folder, number);
    }
    char image[path_size + 32];
    char journal[path_size + 32];
    char new_image[path_size + 32];
    char new_journal[path_size + 32];
};

int NvRegion::attach(unsigned number, bool create)
{
    if (is_current()) {
        return 0;
    }
    const Paths paths(number);
    int result = check_one_machine(settings().nv_dir);  // before a file is made there
    if (result == 0) {
        result = image_.attach(paths.image, nv_region_size, create);
    }
    if (result == 0) {
        result = journal_.attach(paths.journal, journal_size, true);
    }
    if (result == 0 && survives_power_cuts()) {
        result = flush_folder_of(paths.image);  // whoever made the files: they are found again
    }
    if (result != 0) {
        detach();
    }
    return result;
}

// Before the lock it matters only that the descriptor is ours: a lock on another file that the program has opened
// under its number would be seen by others, and its release would let go of the program's own.
int NvRegion::make_lockable(unsigned number, bool create) { return journal_.is_current() ? 0 : attach(number, create); }

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
    end_transfer(journal_);
    return 0;
}

int NvRegion::lock(unsigned number, bool create, short type)
{
    const int64_t deadline = now_ms() + longest_wait_ms;
    int result = lock_once(number, type);
    for (long nap = first_nap_ns; result == -EAGAIN && now_ms() < deadline;
         nap = nap < longest_nap_ns ? nap * 2 : nap) {
        const struct timespec pause {
            0, nap
        };
        nanosleep(&pause, nullptr);
        result = attach(number, create);
        if (result == 0) {
            result = lock_once(number, type);
        }
    }
    return result == -EAGAIN ? -ETIMEDOUT : result;
}

// -EAGAIN: it isn't to be had now.
int NvRegion::lock_once(unsigned number, short type)
{
    const int result = set_lock(journal_.fd(), type);
    if (result == 0) {
        holder_ = {};
        if (!is_current()) {
            unlock();
            return -EAGAIN;  // somebody has replaced the files in between
        }
        return is_closed(journal_) ? replace_files(number) : 0;
    }
    if (result != -EAGAIN) {
        return result;
    }
    struct flock held {};
    held.l_type = type;
    held.l_whence = SEEK_SET;
    if (fcntl(journal_.fd(), F_GETLK, &held) != 0 || held.l_type == F_UNLCK || !is_stuck(held)) {
        return -EAGAIN;
    }
    return replace_files(number);
}

// Whether the same process has held the lock, in the same transfer, since three seconds ago.
bool NvRegion::is_stuck(const struct flock &held)
{
    const uint64_t steps = steps_of(journal_);
    const int64_t now = now_ms();
    if (holder_.since_ms == 0 || holder_.process != held.l_pid || holder_.steps != steps) {
        holder_ = {held.l_pid, steps, now};
    }
    return now - holder_.since_ms >= stuck_after_ms;
}

// Returns 0 with the new files attached and locked for writing; -EAGAIN if somebody else is at it,
// or has been.
int NvRegion::replace_files(unsigned number)
{
    const Paths paths(number);
    MappedFile journal;
    int result = journal.attach(paths.new_journal, journal_size, true);
    if (result == -EIO) {
        (void)unlink(paths.new_journal);  // left unfinished by somebody who was killed
        return -EAGAIN;
    }
    if (result == 0) {
        result = set_lock(journal.fd(), F_WRLCK);
    }
    if (result == 0 && !is_at(journal, paths.new_journal)) {
        result = -EAGAIN;
    }
    if (result == 0) {
        result = is_current() ? make_files(paths, journal) : -EAGAIN;
        if (result != 0 && is_at(journal, paths.new_journal)) {
            (void)unlink(paths.new_image);  // best effort: the next one uses what is left
            (void)unlink(paths.new_journal);
        }
    }
    if (result != 0) {
        journal.detach();
    }
    return result;
}

// With the new journal, which is locked for writing.
int NvRegion::make_files(const Paths &paths, MappedFile &journal)
{
    (void)unlink(paths.new_image);  // of somebody who was killed
    MappedFile image;
    int result = image.attach(paths.new_image, nv_region_size, true);
    if (result == 0) {
        image.look_like(image_);
        journal.look_like(journal_);
        memset(journal.bytes(), 0, journal_size);
        close_journal(journal_);
        result = fill_image(image);
    }
    if (result == 0) {
        result = flush(image.bytes(), nv_region_size);
    }
    if (result == 0) {
        result = flush(journal.bytes(), journal_size);
    }
    if (result == 0 && (rename(paths.new_image, paths.image) != 0 || rename(paths.new_journal, paths.journal) != 0)) {
        result = -errno;
    }
    if (result == 0 && survives_power_cuts()) {
        result = flush_folder_of(paths.image);
    }
    if (result != 0) {
        image.detach();
        return result;
    }
    detach();
    image_ = image;
    journal_ = journal;
    holder_ = {};
    return 0;
}

// What the image holds, and the journal over it. -EAGAIN: the old journal's holder is going on.
int NvRegion::fill_image(MappedFile &image) const
{
    const uint64_t steps = steps_of(journal_);
    memcpy(image.bytes(), image_.bytes(), nv_region_size);
    order_stores();
    // Unmoved steps: a transfer that began to change the image meanwhile holds still.
    if (steps_of(journal_) == steps && journal_state(journal_.bytes()) == journal_holds) {
        JournalHeader header;
        memcpy(&header, journal_.bytes(), sizeof(header));
        if (header.length <= nv_region_size && header.offset <= nv_region_size - header.length) {
            memcpy(image.bytes() + header.offset, journal_.bytes() + payload_offset, header.length);
        }
        order_stores();
    }
    return steps_of(journal_) == steps ? 0 : -EAGAIN;
}

void NvRegion::unlock() const
{
    (void)set_lock(journal_.fd(),
                   F_UNLCK);  // fails only where the descriptor is gone, and the lock with it
}

int NvRegion::read(unsigned number, uint64_t offset, void *buffer, uint64_t length)
{
    int result = make_lockable(number, false);
    if (result == -ENOENT && access(settings().nv_dir, F_OK) == 0) {
        memset(buffer, 0, length);  // never written
        return 0;
    }
    if (result == 0) {
        result = lock(number, false, F_RDLCK);
    }
    if (result == 0 && journal_state(journal_.bytes()) == journal_holds) {
        unlock();  // two readers that wait for each other's lock would wait in vain
        result = lock(number, false, F_WRLCK);
        if (result == 0) {
            (void)finish_interrupted_transfer();  // unflushed it stays in the journal: it is whole
        }
    }
    if (result == 0) {
        memcpy(buffer, image_.bytes() + offset, length);
        unlock();
    }
    return result;
}

int NvRegion::write(unsigned number, uint64_t offset, const void *buffer, uint64_t length)
{
    int result = make_lockable(number, true);
    if (result == 0) {
        result = lock(number, true, F_WRLCK);
    }
    if (result == 0) {
        result = write_locked(offset, buffer, length);
        unlock();
    }
    return result;
}

int NvRegion::write_locked(uint64_t offset, const void *buffer, uint64_t length)
{
    int result = finish_interrupted_transfer();
    if (result == 0) {
        result = put_into_journal(offset, buffer, length);
    }
    if (result != 0) {
        return result;
    }
    copy_in(image_.bytes() + offset, buffer, length);
    result = flush(image_.bytes(), nv_region_size);
    if (result == 0) {
        end_transfer(journal_);
    }
    // Others took this process for stopped: what it wrote may be nowhere.
    return result == 0 && is_closed(journal_) ? -ESTALE : result;
}

int NvRegion::put_into_journal(uint64_t offset, const void *buffer, uint64_t length)
{
    unsigned char *journal = journal_.bytes();
    // On the disk the journal may still hold the last transfer: not with the place or the payload
    // of this one.
    int result = flush(journal, payload_offset);
    if (result != 0) {
        return result;
    }
    JournalHeader *header = header_of(journal_);
    header->offset = offset;
    header->length = length;
    move_step(journal_);
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
