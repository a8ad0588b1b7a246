#include <errno.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <cstddef>

#include "kesta/alloc.h"
#include "kesta/process.h"
#include "trace.h"

namespace {

constexpr int growth_step = 1024;
constexpr std::size_t append_size = 1024;  // one append adds at most 1023 characters
static_assert(append_size <= growth_step, "one step must be enough for any append");

constexpr int failed_capacity = -1;

void mark_failed(char **buffer, int *capacity)
{
    *buffer = nullptr;
    *capacity = failed_capacity;
}

bool start_buffer(char **buffer, int *capacity)
{
    char *text = static_cast<char *>(kestal_malloc_debug(growth_step, __FILE__, __LINE__, 0));
    if (!text) {
        MEMORY_FAILURE(error, 1, "[strcat] MALLOC ERROR errno=%d", error);
        mark_failed(buffer, capacity);
        return false;
    }
    *buffer = text;
    *capacity = growth_step;
    (*buffer)[0] = '\0';
    return true;
}

bool grow_buffer(char **buffer, int *capacity)
{
    void *text = nullptr;
    errno = ENOMEM;
    if (*capacity <= INT_MAX - growth_step) {
        text = kestal_realloc_debug(*buffer, *capacity + growth_step, __FILE__, __LINE__, 0);
    }
    if (!text) {
        SYSTEM_FAILURE(error, 1, "[strcat] realloc ERROR errno=%d", error);
        kestal_free_debug(*buffer, __FILE__, __LINE__, 0);
        mark_failed(buffer, capacity);
        return false;
    }
    *buffer = static_cast<char *>(text);
    *capacity += growth_step;
    return true;
}

}  // namespace

void kestal_strcat(char **buffer, int *capacity, const char *format, ...)
{
    if (!buffer || !capacity || !format) {
        return;
    }
    char added[append_size];
    va_list arguments;
    va_start(arguments, format);
    if (vsnprintf(added, sizeof(added), format, arguments) < 0) {
        added[0] = '\0';
    }
    va_end(arguments);

    if (*capacity < 0) {
        return;
    }
    if (!*buffer && !start_buffer(buffer, capacity)) {
        return;
    }
    const std::size_t used = strlen(*buffer);
    const std::size_t length = strlen(added);
    if (used + length >= static_cast<std::size_t>(*capacity) && !grow_buffer(buffer, capacity)) {
        return;
    }
    memcpy(*buffer + used, added, length + 1);
}
