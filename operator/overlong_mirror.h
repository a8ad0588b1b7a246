// Mirror files that some readers refuse.
#pragma once

#include <vector>

#include "names.h"

namespace engine {

// The items whose file on the disk has more bytes than their value, as a repair leaves it: block access refuses such a
// file to whoever reads the value only, and takes the disk for failed.
std::vector<const Block *> overlong_mirrors();

// Writes such a file anew, with the value only. Throws Failure: it can't be, or the bytes behind the value are no zeros.
void shorten_mirror(const Block &block);

}  // namespace engine
