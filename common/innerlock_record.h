// A record lock between the processes of one controller, for one attempt at the inner lock.
//
// All processes of a controller share one inner-lock slot, and the slot's check, claim and re-check
// can't tell two of them apart if they interleave: the second one's check may come before the
// first one's claim, and its own claim after the first one's re-check. So one process at a time
// makes an attempt, from its check to the end of its sweep of dead slots. The lock is never held
// while sleeping, nor across the caller's section.
#pragma once

#include "ownership.h"

namespace kesta {

class InnerlockRecord {
public:
    enum class Attempt {
        entered,  // this process is alone, or the lock file can't be had: go on without it
        busy,     // another process of this controller is in its attempt
    };

    // Opens the lock file, once for each acquisition of the inner lock.
    InnerlockRecord();

    Attempt try_enter();
    void leave();

private:
    UniqueFd file_;
};

}  // namespace kesta
