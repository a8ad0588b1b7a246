// What a child made by fork finds of the library's mutexes.
//
// fork copies the calling thread only: a mutex that another thread held would stay locked in the child
// for ever. The library can't hold its mutexes across the fork either, as one is usual to: some are held
// for as long as a command runs. So the child gets them free. What they guard bears it: counters and
// flags of one word each, and sequences of platform calls that the child has no part in.
#pragma once

namespace kesta {

// Cheap after the first time; called by whoever locks one of them.
void free_mutexes_in_children();

}  // namespace kesta
