#include "innerlock_record.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr const char *record_path = "/var/run/kesta_sys/tmp/.innerlock";

int open_record()
{
    kesta::CancelOff off;
    kesta::ErrnoKept keep;
    return open(record_path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
}

}  // namespace

namespace kesta {

InnerlockRecord::InnerlockRecord() : file_(open_record()) {}

InnerlockRecord::Attempt InnerlockRecord::try_enter()
{
    if (!file_) {
        return Attempt::entered;
    }
    ErrnoKept keep;
    if (lockf(file_.get(), F_TLOCK, 0) == 0) {
        return Attempt::entered;
    }
    return errno == EACCES || errno == EAGAIN ? Attempt::busy : Attempt::entered;
}

void InnerlockRecord::leave()
{
    if (file_) {
        ErrnoKept keep;
        // Fails only where it was not held.
        [[maybe_unused]] const int released = lockf(file_.get(), F_ULOCK, 0);
    }
}

}  // namespace kesta
