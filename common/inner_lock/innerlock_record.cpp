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

constexpr off_t whole_file = 0;  // a length of lockf: from where the descriptor stands, without an end

off_t offset_of(std::size_t place) { return static_cast<off_t>(place) * place_size; }

int open_record()
{
    kesta::CancelOff off;
    kesta::ErrnoKept keep;
    return open(KESTA_INNERLOCK_FILE, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
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
    const bool alone = nobody_else() || all_passed_by(own);
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
        [[maybe_unused]] const int released = lock(0, F_ULOCK, whole_file);
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
    if (lock(place, F_TLOCK, place_size) == 0) {
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

// One question for all places, which nearly always is the only one.
bool InnerlockRecord::nobody_else()
{
    const bool nobody = lock(0, F_TEST, whole_file) == 0;
    if (nobody) {
        seen_ = {};
    }
    return nobody;
}

bool InnerlockRecord::all_passed_by(std::size_t own)
{
    bool passed_by = true;
    for (std::size_t place = 0; place < places; ++place) {
        if (place != own && in_the_way(place)) {
            passed_by = false;  // the other places are looked at still: their time runs
        }
    }
    return passed_by;
}

// Whether somebody else is in the place who may not be passed by.
bool InnerlockRecord::in_the_way(std::size_t place)
{
    Seen &seen = seen_.at(place);
    if (lock(place, F_TEST, place_size) == 0 || !held_by_others()) {
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

// lockf counts from where the descriptor stands, which is the first place nearly always.
int InnerlockRecord::lock(std::size_t place, int command, off_t length)
{
    const bool stands = place == at_ || lseek(file_.get(), offset_of(place), SEEK_SET) >= 0;
    at_ = stands ? place : at_;
    return stands ? lockf(file_.get(), command, length) : -1;
}

}  // namespace kesta
