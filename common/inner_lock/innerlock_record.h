// A record lock between the processes of one controller, for one attempt at the inner lock.
//
// All processes of a controller share one inner-lock slot, and the slot's check, claim and re-check
// can't tell two of them apart if they interleave: the second one's check may come before the
// first one's claim, and its own claim after the first one's re-check. So one process at a time
// makes an attempt, from its check to the end of its sweep of dead slots. The lock is not held in
// the sleep between two attempts, nor across the caller's section; it is held while a transfer of
// NV memory that fails is tried again, sleeps included.
//
// A process that is stopped inside its attempt must not keep the others out for ever. So the file
// has several places, each with a lock and a count of the attempts made there:
//
//   - An attempt takes the first place, and counts. Who finds a place held, with the same count for more than
//     30 seconds, passes it by and takes the next one.
//   - Having counted, it looks at all other places. If one is held by somebody whom it may not pass
//     by, it gives up its own. So of two that hold places at least one sees the other.
//   - Whoever was stopped, and goes on, is late(): it writes nothing any more in this attempt, and enters anew. Then
//     its count has moved, and nobody passes it by.
//
// What is left is a stop exactly between the question late() and the write that follows.
#pragma once

#include <time.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "ownership.h"

namespace kesta {

class InnerlockRecord {
public:
    // Opens the lock file, once for each acquisition of the inner lock.
    InnerlockRecord();

    // Whether this process may make its attempt: it is alone, or alone but for those that have been
    // in theirs for more than 30 seconds, or the lock file can't be had. If not, it may look, and
    // write nothing.
    bool enter();

    // Needed between two attempts only: the end of the record leaves, too.
    void leave();

    // Whether it entered so long ago that others may have passed it by.
    bool late() const;

private:
    // Who died or was stopped in a place stays in it: there are some to spare.
    static constexpr std::size_t places = 4;

    // What this process has seen of a place held by others.
    struct Seen {
        bool held = false;
        std::int64_t count = 0;
        clock_t since = 0;
    };
    enum class Taking { taken, held, impossible };

    std::size_t first_place();
    Taking take(std::size_t place);
    void count_attempt(std::size_t place);
    bool nobody_else();
    bool all_passed_by(std::size_t own);
    bool in_the_way(std::size_t place);
    int lock(std::size_t place, int command, off_t length);

    UniqueFd file_;
    std::size_t at_ = 0;  // the place where the descriptor stands
    clock_t entered_at_ = 0;
    std::array<Seen, places> seen_{};
};

}  // namespace kesta
