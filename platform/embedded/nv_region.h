// One NV region kept in files: REGION.img holds its 32768 bytes, REGION.jnl the transfer under way.
//
// Transfers exclude each other by a record lock on the journal. Nobody waits for it longer than a
// second: the access fails then. A process that was killed lets go of it, and whoever comes next
// finishes or drops what it had begun. One that is stopped in a transfer keeps it; so whoever has
// seen it hold the lock for three seconds, in one access or several, gives the region new files:
//
//   1. It closes the old journal for good (a mark in it, which nobody takes back).
//   2. It copies the image to a new file, and what the journal holds over it: the transfer of the
//      stopped process is finished or dropped, as if it had been killed.
//   3. It puts the new files in the place of the old ones, the image first. It has the new journal
//      locked before that has its name.
//
// The stopped process, going on, writes to files that nobody reads any more, finds the mark, and
// fails; its caller tries again. One that was only slow, and finishes between 1 and 2, finds the
// mark as well: its transfer is in the copy, and is made again. Whoever is granted the lock on a
// marked journal replaces the files itself. A process that is killed in between leaves the mark,
// and nothing else of weight.
#pragma once

#include <fcntl.h>
#include <stdint.h>
#include <sys/types.h>

#include "call_checks.h"
#include "mapped_file.h"

namespace embedded {

using platform::nv_region_size;

class NvRegion {
public:
    // Return 0 or a negative errno. Range and region have been checked.
    int read(unsigned number, uint64_t offset, void *buffer, uint64_t length);
    int write(unsigned number, uint64_t offset, const void *buffer, uint64_t length);

private:
    struct Paths;

    // Who holds the lock on the journal, and since when this process has seen it.
    struct Holder {
        pid_t process = 0;
        uint64_t steps = 0;
        int64_t since_ms = 0;
    };

    int attach(unsigned number, bool create);
    int make_lockable(unsigned number, bool create);
    void detach();
    bool is_current() const { return image_.is_current() && journal_.is_current(); }

    // Locks the journal, for reading (F_RDLCK) or writing (F_WRLCK), once it is lockable. The
    // region's files are attached then, and nobody else's.
    int lock(unsigned number, bool create, short type);
    int lock_once(unsigned number, short type);
    bool is_stuck(const struct flock &held);
    int replace_files(unsigned number);
    int make_files(const Paths &paths, MappedFile &journal);
    int fill_image(MappedFile &image) const;
    void unlock() const;

    int write_locked(uint64_t offset, const void *buffer, uint64_t length);

    // Each returns 0 or a negative errno, with the lock on the journal held for writing.
    int finish_interrupted_transfer();
    int put_into_journal(uint64_t offset, const void *buffer, uint64_t length);

    MappedFile image_;
    MappedFile journal_;
    Holder holder_;
};

}  // namespace embedded
