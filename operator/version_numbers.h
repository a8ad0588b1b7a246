// The numbers that environments are saved under.
#pragma once

#include <optional>

namespace engine {

// The next number: after the largest one comes 1 again.
int version_after(int version);

// Whether a number was handed out before the other one: they wrap, and the shorter way counts.
bool is_older_version(int version, int than);

// The number that was handed out last. Throws Failure.
int latest_number(int own);

// Hands out the next version number: it is read and raised in one section of the inner lock, so that none
// is handed out twice. Throws Failure.
int hand_out_version(int own);

// The number of a version area, without the inner lock: a transfer of one number is whole. Each is asked anew in both
// places. Below 0: nobody has it. Nothing: it can't be read.
std::optional<int> number_in_area(int area, int controller);

// A version of this controller, in both places; and the one on flash. Throw Failure.
void set_version(int area, int version);
void set_flash_version(int kind, int version);

}  // namespace engine
