#include "mc_logapi.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <charconv>
#include <initializer_list>

#include "scoped.h"
#include "settings.h"

#define PLATFORM_API __attribute__((visibility("default")))

namespace {

using namespace platform;

constexpr size_t line_size = 2048;
constexpr int level_unknown = -1;

int highest_level = level_unknown;                  // lines above it are dropped
TraceTarget target;                                 // known when the level is
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;  // guards the trace file below

int trace_fd = -1;
struct stat trace_file;     // of trace_fd when it was opened
unsigned lines_since_look;  // lines since the name was last compared with the file

// Asked once, and again in a child: the calls cost as much as the rest of a line's formatting.
pid_t process_number;              // 0: not asked yet
thread_local pid_t thread_number;  // of the process below
thread_local pid_t thread_process;

void lock_for_fork() { pthread_mutex_lock(&mutex); }
void unlock_after_fork() { pthread_mutex_unlock(&mutex); }
void forget_process_after_fork()
{
    process_number = 0;
    pthread_mutex_unlock(&mutex);
}
// When the library is loaded: a fork that has begun by the first use would not know of it.
__attribute__((constructor)) void handle_fork()
{
    pthread_atfork(lock_for_fork, unlock_after_fork, forget_process_after_fork);
}

pid_t own_process()
{
    pid_t number = __atomic_load_n(&process_number, __ATOMIC_RELAXED);
    if (number == 0) {
        number = getpid();
        __atomic_store_n(&process_number, number, __ATOMIC_RELAXED);
    }
    return number;
}

pid_t own_thread(pid_t process)
{
    if (thread_process != process) {
        thread_process = process;
        thread_number = gettid();
    }
    return thread_number;
}

// Whether two results of stat mean the same file.
bool same_file(const struct stat &a, const struct stat &b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

// A plain file or a device; somebody may have put a link or a FIFO there, to be written through or waited for.
void open_trace_file()
{
    constexpr int flags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    trace_fd = kesta::above_standard(open(settings().trace_file, flags, 0640));
    if (trace_fd >= 0 &&
        (fstat(trace_fd, &trace_file) != 0 || (!S_ISREG(trace_file.st_mode) && !S_ISCHR(trace_file.st_mode)))) {
        (void)close(trace_fd);
        trace_fd = -1;
    }
    lines_since_look = 0;
}

// NAME.1 becomes NAME.2 and so on; the last one goes.
void shift_old_files(const char *path)
{
    char from[path_size + 16];
    char to[path_size + 16];
    for (int i = settings().trace_keep; i > 1; --i) {
        snprintf(from, sizeof(from), "%s.%d", path, i - 1);
        snprintf(to, sizeof(to), "%s.%d", path, i);
        (void)rename(from, to);  // there may be none yet
    }
    snprintf(to, sizeof(to), "%s.1", path);
    (void)rename(path, to);  // if it fails the file goes on growing: no line is lost
}

// One process rotates; the others find that the name stands for another file and open that.
void rotate()
{
    const char *path = settings().trace_file;
    if (flock(trace_fd, LOCK_EX | LOCK_NB) == 0) {
        struct stat named;
        if (stat(path, &named) == 0 && same_file(named, trace_file)) {
            shift_old_files(path);
        }
    }
    (void)close(trace_fd);
    trace_fd = -1;
    open_trace_file();
}

bool trace_file_was_moved()
{
    constexpr unsigned lines_between_looks = 64;
    if (++lines_since_look < lines_between_looks) {
        return false;
    }
    lines_since_look = 0;
    struct stat named;
    return stat(settings().trace_file, &named) != 0 || !same_file(named, trace_file);
}

// Makes trace_fd usable: opened, still ours, and not too long.
bool prepare_trace_file()
{
    struct stat now;
    if (trace_fd >= 0 && (fstat(trace_fd, &now) != 0 || !same_file(now, trace_file))) {
        trace_fd = -1;  // a program that closes all descriptors has closed ours: not ours to close
    }
    if (trace_fd >= 0 && trace_file_was_moved()) {
        (void)close(trace_fd);
        trace_fd = -1;
    }
    if (trace_fd < 0) {
        open_trace_file();
        return trace_fd >= 0;
    }
    if (now.st_size >= settings().trace_rotate_bytes) {
        rotate();
    }
    return trace_fd >= 0;
}

void write_to_file(const char *line, size_t length)
{
    const kesta::Locked locked(mutex);
    if (prepare_trace_file()) {
        (void)!write(trace_fd, line, length);  // a trace that can't be written is lost
    }
}

// A reader of stderr that went away must not end the caller: SIGPIPE is held back.
void write_to_stderr(const char *line, size_t length)
{
    sigset_t pipe_signal;
    sigset_t before;
    sigset_t pending;
    sigemptyset(&pipe_signal);
    sigaddset(&pipe_signal, SIGPIPE);
    sigpending(&pending);
    pthread_sigmask(SIG_BLOCK, &pipe_signal, &before);
    const ssize_t written = write(STDERR_FILENO, line, length);
    if (written < 0 && errno == EPIPE && !sigismember(&pending, SIGPIPE)) {
        const struct timespec at_once {
        };
        (void)sigtimedwait(&pipe_signal, nullptr, &at_once);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

int syslog_priority(int level)
{
    switch (level) {
    case 1:
        return LOG_ERR;
    case 2:
        return LOG_WARNING;
    case 3:
        return LOG_NOTICE;
    case 4:
        return LOG_INFO;
    default:
        return LOG_DEBUG;
    }
}

char *put_padded(char *to, unsigned value, int digits)
{
    for (int i = digits; i > 0; --i) {
        to[i - 1] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
    return to + digits;
}

char *put_number(char *to, int value) { return std::to_chars(to, to + 11, value).ptr; }

// A day of the calendar, from the days since 1970 (which are not before).
void split_day(long days, int &year, int &month, int &day)
{
    // Years begin in March: the leap day is the last one then.
    const long shifted = days + 719468;
    const long era = shifted / 146097;
    const long of_era = shifted % 146097;
    const long year_of_era = (of_era - of_era / 1460 + of_era / 36524 - of_era / 146096) / 365;
    const long of_year = of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const long from_march = (5 * of_year + 2) / 153;
    day = static_cast<int>(of_year - (153 * from_march + 2) / 5 + 1);
    month = static_cast<int>(from_march < 10 ? from_march + 3 : from_march - 9);
    year = static_cast<int>(year_of_era + era * 400 + (month <= 2 ? 1 : 0));
}

// "2026-11-21T04:27:11.123456Z". The C library's functions take the lock of the time zone, which a
// child made by fork may find taken.
char *put_time(char *to)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const long seconds = now.tv_sec % 86400;
    int year;
    int month;
    int day;
    split_day(now.tv_sec / 86400, year, month, day);
    const auto part = [&to](long value, int digits, char after) {
        to = put_padded(to, static_cast<unsigned>(value), digits);
        *to++ = after;
    };
    part(year, 4, '-');
    part(month, 2, '-');
    part(day, 2, 'T');
    part(seconds / 3600, 2, ':');
    part(seconds / 60 % 60, 2, ':');
    part(seconds % 60, 2, '.');
    part(now.tv_nsec / 1000, 6, 'Z');
    return to;
}

// Time, process, thread, level, file and line, each with a blank behind it.
size_t put_head(char *line, const char *file, int line_number, int level)
{
    constexpr size_t longest_name = 64;
    const pid_t process = own_process();
    char *to = put_time(line);
    for (const int number : {process, own_thread(process), level}) {
        *to++ = ' ';
        to = put_number(to, number);
    }
    *to++ = ' ';
    const char *name = file ? MC_FilePathDel(file) : "-";
    const size_t length = strnlen(name, longest_name);
    memcpy(to, name, length);
    to += length;
    *to++ = ':';
    to = put_number(to, line_number);
    *to++ = ' ';
    return static_cast<size_t>(to - line);
}

size_t bounded(int length, size_t room)
{
    if (length < 0) {
        return 0;
    }
    return static_cast<size_t>(length) < room ? static_cast<size_t>(length) : room - 1;
}

// A line has no line breaks in it, and ends in one. Only the text can have any.
size_t finish_line(char *line, size_t text, size_t length)
{
    for (const char c : {'\n', '\r'}) {
        char *at = line + text;
        while ((at = static_cast<char *>(memchr(at, c, static_cast<size_t>(line + length - at))))) {
            *at++ = ' ';
        }
    }
    line[length] = '\n';
    return length + 1;
}

__attribute__((noinline, format(printf, 4, 0))) void write_trace(const char *file, int line_number, int level,
                                                                 const char *format, va_list arguments)
{
    char line[line_size];
    size_t used = put_head(line, file, line_number, level);
    const size_t text = used;
    // The caller has started the list; the analyzer loses sight of that.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    used += bounded(vsnprintf(line + used, line_size - 1 - used, format, arguments), line_size - 1 - used);
    if (target == TraceTarget::system_log) {
        line[used] = '\0';
        const kesta::Locked locked(mutex);            // no fork while the C library has its lock
        const kesta::StandardDescriptorsTaken taken;  // the connection stays open
        syslog(LOG_USER | syslog_priority(level), "%s", line + text);
        return;
    }
    const size_t length = finish_line(line, text, used);
    if (target == TraceTarget::file) {
        write_to_file(line, length);
    } else {
        write_to_stderr(line, length);
    }
}

__attribute__((noinline)) int load_level()
{
    const kesta::CancelOff off;
    const int before = errno;
    TraceTarget known_target = trace_target();
    const int level = known_target == TraceTarget::none ? 0 : settings().trace_level;
    __atomic_store(&target, &known_target, __ATOMIC_RELAXED);
    __atomic_store_n(&highest_level, level, __ATOMIC_RELEASE);
    errno = before;
    return level;
}

}  // namespace

PLATFORM_API void MC_OutTrace(const char *file, int line, int level, const char *format, ...)
{
    int highest = __atomic_load_n(&highest_level, __ATOMIC_ACQUIRE);
    if (__builtin_expect(highest == level_unknown, 0)) {
        highest = load_level();
    }
    if (level > highest || !format) {
        return;
    }
    const kesta::CancelOff off;
    const int before = errno;
    va_list arguments;
    va_start(arguments, format);
    errno = before;  // for a format that prints it
    write_trace(file, line, level, format, arguments);
    va_end(arguments);
    errno = before;
}

PLATFORM_API const char *MC_FilePathDel(const char *path)
{
    if (!path) {
        return "";
    }
    const char *slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}
