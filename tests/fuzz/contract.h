// What a fuzz target is: one function that is given any input, and ends the process where a
// contract is broken.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string_view>

namespace fuzz {

// What has to be undone before the process ends, so that its input can be kept.
extern void (*before_end)();

// Ends the process: what is tested has broken its contract.
[[noreturn]] void broken(const char *what);

inline void require(bool holds, const char *what)
{
    if (!holds) {
        broken(what);
    }
}

// Whether a terminal shows all of it and acts on none of it: UTF-8, and no control characters but
// newline and tab, DEL, C1 controls or marks that turn the direction of writing. Written anew, so
// that it can be held against what kestactl makes printable.
bool is_printable(std::string_view text);

// A text for a terminal, or a document: printable.
void require_printable(std::string_view text);

// One JSON text, in characters of ASCII.
void require_json(std::string_view text);

}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
