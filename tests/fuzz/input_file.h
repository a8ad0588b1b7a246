// The input of a fuzz target as the file that the library opens, and as the output of its commands.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace fuzz {

// From here on, whatever the library opens to read, and whatever command it runs, gives this input.
// Returns a path for those who ask for one.
char *use_input(const uint8_t *data, size_t size);

// Ends the process: the library has broken its contract.
[[noreturn]] void broken(const char *what);

inline void require(bool holds, const char *what)
{
    if (!holds) {
        broken(what);
    }
}

}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
