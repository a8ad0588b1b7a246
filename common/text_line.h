// One line of text as the library's small files hold it.
#pragma once

#include <string.h>

#include "kesta/process.h"
#include "ownership.h"

namespace kesta {

// "%s\n" or "%d\n" in a buffer of the tracked allocator.
template <typename Value>
class TextLine {
public:
    TextLine(const char *format, Value value)
    {
        char *text = nullptr;
        kestal_strcat(&text, &capacity_, format, value);
        *buffer_.out() = text;
    }

    bool made() const { return capacity_ >= 0; }
    const char *text() const { return static_cast<const char *>(buffer_.get()); }
    std::size_t length() const { return strlen(text()); }

private:
    int capacity_ = 0;
    TrackedBuffer buffer_;
};

}  // namespace kesta
