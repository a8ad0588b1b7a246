// Fixed-width text fields of the NV image and of the 32-byte buffers that callers pass.
#pragma once

#include <string.h>

#include <array>
#include <cstddef>

#include "kesta/nv_image.h"

namespace kesta {

// A field of N characters with room for the terminator that a full field doesn't have, so that it
// can be printed and compared as text.
template <std::size_t N>
class TextField {
public:
    static constexpr std::size_t width = N;

    TextField() = default;

    // Takes at most N characters of text and stops at its terminator; null reads as "(null)".
    explicit TextField(const char *text)
    {
        static constexpr char null_text[] = "(null)";
        const char *from = text ? text : null_text;
        memcpy(bytes_.data(), from, strnlen(from, N));
    }

    // All N bytes of a raw field.
    void copy_in(const char *field) { memcpy(bytes_.data(), field, N); }
    void copy_out(char *field) const { memcpy(field, bytes_.data(), N); }

    char *data() { return bytes_.data(); }
    const char *c_str() const { return bytes_.data(); }
    bool empty() const { return bytes_[0] == '\0'; }

private:
    std::array<char, N + 1> bytes_{};
};

using AreaName = TextField<KESTA_AREA_NAME_SIZE>;
using GroupName = TextField<KESTA_GROUP_NAME_SIZE>;

}  // namespace kesta
