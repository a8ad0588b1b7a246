// A command whose output is read through a pipe. Opening and closing hold popen_mutex, so that the
// pipe children of several threads are started and reaped one at a time.
#pragma once

#include <stdio.h>

#include <array>

namespace kesta {

class PipePtr {
public:
    static constexpr std::size_t line_size = 64;  // at most 63 characters of a line are read
    using Line = std::array<char, line_size>;

    explicit PipePtr(const char *command);
    ~PipePtr();
    PipePtr(const PipePtr &) = delete;
    PipePtr &operator=(const PipePtr &) = delete;

    explicit operator bool() const { return stream_ != nullptr; }

    // Reads one line, without its newline, into a zeroed buffer. False at the end of the output.
    bool read_line(Line &line);

    // Closes the pipe once and returns its status; -1 if there is none.
    int close();

private:
    FILE *stream_;
};

}  // namespace kesta
