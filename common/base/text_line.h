// Text built in a buffer of the tracked allocator, and small files of text.
#pragma once

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include "kesta/process.h"
#include "ownership.h"

namespace kesta {

// A growing text.
class TextBuffer {
public:
    TextBuffer() = default;
    ~TextBuffer() { kestal_free_debug(text_, __FILE__, __LINE__, 0); }
    TextBuffer(const TextBuffer &) = delete;
    TextBuffer &operator=(const TextBuffer &) = delete;

    // For kestal_strcat, which appends at most 1023 characters at a time.
    char **out() { return &text_; }
    int *capacity() { return &capacity_; }

    // Whether all of it could be built.
    bool made() const { return capacity_ >= 0; }
    const char *text() const { return text_ ? text_ : ""; }

private:
    int capacity_ = 0;
    char *text_ = nullptr;
};

// What became of a text that was written in one piece.
struct TextWritten {
    int length;
    int written;  // -1: nothing, and error says why
    int error;

    bool complete() const { return written >= length; }
};

inline TextWritten write_text(int fd, const char *text)
{
    const std::size_t length = strlen(text);
    const ssize_t written = write(fd, text, length);
    return {static_cast<int>(length), static_cast<int>(written), errno};
}

// The same for a file that holds nothing else: it is closed, and a failed close is a failed write.
inline TextWritten write_and_close_text(UniqueFd &file, const char *text)
{
    TextWritten result = write_text(file.get(), text);
    if (file.close() != 0 && result.complete()) {
        result.written = -1;
        result.error = errno;
    }
    return result;
}

// The same for one line of a file, formed in a buffer of the tracked allocator. Not made: there was no memory, and nothing
// was written.
struct LineWritten {
    bool made;
    TextWritten text;
};

template <typename Value>
__attribute__((format(printf, 2, 0))) LineWritten write_line(int fd, const char *format, Value value)
{
    TextBuffer line;
    kestal_strcat(line.out(), line.capacity(), format, value);
    return line.made() ? LineWritten{true, write_text(fd, line.text())} : LineWritten{};
}

// Whatever umask a program was started with: root goes by what is in these files, and runs some of them.
inline constexpr int new_text_file_mode = 0644;

}  // namespace kesta
