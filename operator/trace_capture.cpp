#include "trace_capture.h"

#include <dlfcn.h>
#include <stdio.h>

#include <algorithm>
#include <array>
#include <deque>
#include <mutex>

#include "inner_lock_wait.h"
#include "printable.h"

namespace engine {
namespace {

constexpr int highest_error_level = 2;
constexpr int progress_level = 5;
constexpr std::size_t kept_lines = 256;

struct Line {
    int level;
    std::string text;
    std::uint64_t number = 0;
};

std::mutex mutex;
std::uint64_t kept = 0;
std::deque<Line> lines;  // the last ones; progress is not kept
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
    if (level < progress_level) {
        lines.push_back({level, text, ++kept});
        if (lines.size() > kept_lines) {
            lines.pop_front();
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
    std::vector<std::string> errors;
    for (const Line &line : lines) {
        if (line.level <= highest_error_level) {
            errors.push_back(line.text);
        }
    }
    return errors;
}

std::uint64_t traced_lines()
{
    const std::lock_guard guard(mutex);
    return kept;
}

bool was_traced(const std::string &text, std::uint64_t behind)
{
    const std::lock_guard guard(mutex);
    return std::any_of(lines.begin(), lines.end(), [&](const Line &line) {
        return line.number > behind && line.text.find(text) != std::string::npos;
    });
}

}  // namespace engine
