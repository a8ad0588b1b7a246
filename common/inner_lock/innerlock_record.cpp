#include "innerlock_record.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "kesta/paths.h"
#include "process_clock.h"

namespace {

constexpr clock_t passed_by_after_seconds = 30;

// A place is as long as its count, which it also is the lock of.
constexpr off_t place_size = sizeof(std::int64_t);

off_t offset_of(std::size_t place) { return static_cast<off_t>(place) * place_size; }

int open_record()
{
    kesta::CancelOff off;
    kesta::ErrnoKept keep;
    return open(KESTA_INNERLOCK_FILE, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
}

// lockf counts from where the descriptor stands.
int lock_place(int fd, std::size_t place, int command)
{
    return lseek(fd, offset_of(place), SEEK_SET) >= 0 ? lockf(fd, command, place_size) : -1;
}

bool held_by_others() { return errno == EACCES || errno == EAGAIN; }

std::int64_t count_of(int fd, std::size_t place)
{
    std::int64_t count = 0;
    const ssize_t size = pread(fd, &count, sizeof(count), offset_of(place));
    return size == static_cast<ssize_t>(sizeof(count)) ? count : 0;  // a new file has none yet
}

}  // namespace

namespace kesta {

InnerlockRecord::InnerlockRecord() : file_(open_record()) {}

bool InnerlockRecord::enter()
{
    entered_at_ = process_seconds();  // not later than anybody sees the place held
    if (!file_) {
        return true;
    }
    ErrnoKept keep;
    const std::size_t own = first_place();
    bool alone = true;
    for (std::size_t place = 0; place < places; ++place) {
        if (place != own && in_the_way(place)) {
            alone = false;  // the other places are looked at still: their time runs
        }
    }
    if (!alone) {
        leave();
    }
    return alone;
}

void InnerlockRecord::leave()
{
    if (file_) {
        ErrnoKept keep;
        // Fails only where it was not held.
        [[maybe_unused]] const bool released =
            lseek(file_.get(), 0, SEEK_SET) == 0 && lockf(file_.get(), F_ULOCK, 0) == 0;
    }
}

bool InnerlockRecord::late() const { return process_seconds() - entered_at_ > passed_by_after_seconds; }

// Takes the first place that is not to be passed by. Returns it, or the number of places if there
// is none to be had: the caller is alone then if nobody is in its way.
std::size_t InnerlockRecord::first_place()
{
    for (std::size_t place = 0; place < places; ++place) {
        const Taking taking = take(place);
        if (taking == Taking::taken) {
            count_attempt(place);
            return place;
        }
        if (taking == Taking::impossible || in_the_way(place)) {
            break;
        }
    }
    return places;
}

InnerlockRecord::Taking InnerlockRecord::take(std::size_t place)
{
    if (lock_place(file_.get(), place, F_TLOCK) == 0) {
        seen_.at(place) = {};
        return Taking::taken;
    }
    return held_by_others() ? Taking::held : Taking::impossible;
}

void InnerlockRecord::count_attempt(std::size_t place)
{
    const std::int64_t count = count_of(file_.get(), place) + 1;
    // Where it can't be written others go by how long the place has been held.
    [[maybe_unused]] const ssize_t written = pwrite(file_.get(), &count, sizeof(count), offset_of(place));
}

// Whether somebody else is in the place who may not be passed by.
bool InnerlockRecord::in_the_way(std::size_t place)
{
    Seen &seen = seen_.at(place);
    if (lock_place(file_.get(), place, F_TEST) == 0 || !held_by_others()) {
        seen = {};
        return false;
    }
    const std::int64_t count = count_of(file_.get(), place);
    const clock_t now = process_seconds();
    if (!seen.held || seen.count != count) {
        seen = {true, count, now};
    }
    return now - seen.since <= passed_by_after_seconds;
}

}  // namespace kesta
