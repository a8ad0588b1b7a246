// Text that printf forms in a buffer of fixed size.
#pragma once

#include <stdio.h>

#include <array>
#include <cstddef>

namespace kesta {

// How a text that may be missing is shown.
inline const char *or_null(const char *text) { return text ? text : "(null)"; }

// Forms a text; false if it doesn't fit, and is cut. Texts of fixed parts fit: their result is not looked at.
template <std::size_t Size, typename... Arguments>
__attribute__((format(printf, 2, 0))) bool form(std::array<char, Size> &text, const char *format,
                                                Arguments... arguments)
{
    const int length = snprintf(text.data(), text.size(), format, arguments...);
    return length >= 0 && static_cast<std::size_t>(length) < text.size();
}

}  // namespace kesta
