#include "trace_capture.h"

#include <dlfcn.h>
#include <stdio.h>

#include <array>
#include <deque>
#include <mutex>

#include "inner_lock_wait.h"
#include "printable.h"

namespace engine {
namespace {

constexpr int highest_error_level = 2;
constexpr std::size_t kept_lines = 256;

std::mutex mutex;
std::deque<std::string> errors;  // the last ones
int shown_level = 0;
bool to_platform = true;
std::function<void(const std::string &)> watching;

using OutTrace = void (*)(const char *, int, int, const char *, ...);

// The platform's log, behind this program's own.
OutTrace platform_log()
{
    static const OutTrace log = reinterpret_cast<OutTrace>(dlsym(RTLD_NEXT, "MC_OutTrace"));
    return log;
}

const char *base_name(const char *path)
{
    const std::string_view text(path ? path : "");
    const std::size_t slash = text.rfind('/');
    return slash == std::string_view::npos ? text.data() : text.data() + slash + 1;
}

}  // namespace

void take_trace(const char *file, int line, int level, const char *text)
{
    watch_inner_lock(file, level);
    const std::lock_guard guard(mutex);
    if (watching) {
        watching(text);
    }
    if (level <= highest_error_level) {
        errors.emplace_back(text);
        if (errors.size() > kept_lines) {
            errors.pop_front();
        }
    }
    if (level <= shown_level) {
        fprintf(stderr, "%d %s:%d %s\n", level, base_name(file), line, printable(text).c_str());
    }
    if (const OutTrace log = to_platform ? platform_log() : nullptr) {
        log(file, line, level, "%s", text);
    }
}

void show_traces(int level)
{
    const std::lock_guard guard(mutex);
    shown_level = level;
}

bool traces_are_shown()
{
    const std::lock_guard guard(mutex);
    return shown_level > 0;
}

void withhold_traces()
{
    const std::lock_guard guard(mutex);
    to_platform = false;
}

void watch_traces(std::function<void(const std::string &line)> watcher)
{
    const std::lock_guard guard(mutex);
    watching = std::move(watcher);
}

std::vector<std::string> captured_errors()
{
    const std::lock_guard guard(mutex);
    return {errors.begin(), errors.end()};
}

}  // namespace engine
