// Which process of this controller holds its command lock: the lock itself has no room for that. The note lies where a
// reboot clears it, and is gone when the lock is let go; one that stays tells that its process ended without.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace engine {

// Notes this process as the holder. Best effort: without a note nobody is said to be gone.
void note_holder(int controller, const char *identifier);
void forget_holder();

// The process that held this controller's lock of this identifier, if it has ended; 0 if it lives, or nothing is known of
// it.
pid_t gone_holder(int controller, std::int64_t identifier);

}  // namespace engine
