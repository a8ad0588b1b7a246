// Tells whoever sits at the terminal that a call of the library waits for the inner lock, for whom and how long.
#pragma once

namespace engine {

// Each line that the library traces passes through here: the inner lock's own source traces each new attempt at
// level 4. Said once for a wait, when it has lasted for more than a second, to a terminal on stderr.
void watch_inner_lock(const char *file, int level);

}  // namespace engine
