// The input of a fuzz target as the file that the library opens, and as the output of its commands.
#pragma once

#include "contract.h"

namespace fuzz {

// From here on, whatever the library opens to read, and whatever command it runs, gives this input.
// Returns a path for those who ask for one.
char *use_input(const uint8_t *data, size_t size);

}  // namespace fuzz
