#include "cause.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

namespace {

// Plain bytes: a thread's copy needs nothing done when it begins or ends.
constinit thread_local KESTA_CAUSE last_cause{};

void set_function(const char *source)
{
    const char *slash = strrchr(source, '/');
    const char *name = slash ? slash + 1 : source;
    const char *dot = strrchr(name, '.');
    const int length = dot ? static_cast<int>(dot - name) : static_cast<int>(strlen(name));
    (void)snprintf(last_cause.function, sizeof(last_cause.function), "%.*s", length, name);
}

}  // namespace

void kesta::note_cause(int kind, int number, const char *source, const char *format, ...)
{
    const int before = errno;
    last_cause.kind = kind;
    last_cause.number = number;
    set_function(source);
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(last_cause.text, sizeof(last_cause.text), format, arguments);
    va_end(arguments);
    errno = before;
}

const KESTA_CAUSE *kesta_last_cause(void) { return &last_cause; }

void kesta_clear_cause(void) { last_cause = KESTA_CAUSE{}; }
