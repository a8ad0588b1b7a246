// This program's own MC_OutTrace stands before the platform's: the library's lines come here first.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>

#include <array>

#include "trace_capture.h"

extern "C" __attribute__((visibility("default"), format(printf, 4, 5))) void MC_OutTrace(const char *file, int line,
                                                                                         int level, const char *format,
                                                                                         ...)
{
    const int before = errno;
    std::array<char, 2048> text{};
    va_list arguments;
    va_start(arguments, format);
    // clang-tidy misses the va_start above.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    engine::take_trace(file, line, level, text.data());
    errno = before;
}
