#include "input_file.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

namespace {

std::string path;
int input_fd = -1;

FILE *open_input(const char *mode);

}  // namespace

// The platform's trace log: the text is put together, and dropped.
extern "C" __attribute__((format(printf, 4, 5))) void MC_OutTrace(const char *, int, int, const char *format, ...)
{
    static char text[1 << 16];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
}

extern "C" FILE *__real_fopen(const char *name, const char *mode);
// The library opens everything close-on-exec; what libFuzzer opens, it opens otherwise: the inputs
// that it keeps.
extern "C" FILE *__wrap_fopen(const char *name, const char *mode)
{
    return strchr(mode, 'e') ? open_input(mode) : __real_fopen(name, mode);
}
extern "C" FILE *__wrap_popen(const char *, const char *) { return open_input("re"); }
extern "C" int __wrap_pclose(FILE *stream)
{
    fclose(stream);
    return 0;
}

namespace {

FILE *open_input(const char *mode) { return __real_fopen(path.c_str(), mode); }

}  // namespace

namespace fuzz {

char *use_input(const uint8_t *data, size_t size)
{
    if (input_fd < 0) {
        input_fd = memfd_create("input", MFD_CLOEXEC);
        path = "/proc/self/fd/" + std::to_string(input_fd);
    }
    require(ftruncate(input_fd, 0) == 0 && pwrite(input_fd, data, size, 0) == static_cast<ssize_t>(size),
            "the input can't be stored");
    return path.data();
}

}  // namespace fuzz
