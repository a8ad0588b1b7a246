#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdint>

#include "child_process.h"
#include "kesta/alloc.h"
#include "ownership.h"
#include "trace.h"

// Code of the child between its start and exec. It shares the parent's memory, so it is kept from
// the sanitizers' bookkeeping, makes bare system calls where an interposed function or a
// sanitizer would record something in that memory, and allocates nothing.
#define CHILD_CODE __attribute__((no_sanitize("address", "thread", "undefined")))

namespace {

constexpr int max_environment_strings = 511;
constexpr std::size_t child_stack_size = 65536;
constexpr int first_closed_descriptor = 3;
constexpr unsigned kill_poll_us = 100000;
constexpr int kill_polls = 4;
constexpr int exec_failed = 127;

constexpr char empty_block[2] = {'\0', '\0'};

// Offset of the first two adjacent NULs.
std::size_t block_end(const char *block)
{
    std::size_t end = 0;
    while (memcmp(block + end, empty_block, sizeof(empty_block)) != 0) {
        ++end;
    }
    return end;
}

using EnvironmentPointers = std::array<char *, max_environment_strings + 1>;

struct ChildStart {
    const char *command;
    char *const *environment;
    std::uint64_t parent_mask;  // as the kernel takes it
};

CHILD_CODE long raw_call(long number, long a, long b, long c, long d) { return syscall(number, a, b, c, d); }

CHILD_CODE long address_of(const void *pointer) { return static_cast<long>(reinterpret_cast<std::intptr_t>(pointer)); }

CHILD_CODE int descriptor_number(const char *name)
{
    int number = 0;
    for (const char *c = name; *c != '\0'; ++c) {
        if (*c < '0' || *c > '9') {
            return -1;  // "." and ".."
        }
        number = number * 10 + (*c - '0');
    }
    return number;
}

struct linux_dirent64 {
    std::uint64_t d_ino;
    std::int64_t d_off;
    std::uint16_t d_reclen;
    std::uint8_t d_type;
    char d_name[1];
};

// "/proc/PID/fd"; without snprintf, which the child had better not call.
CHILD_CODE void descriptor_folder(char (&path)[1024])
{
    char digits[24];
    int count = 0;
    for (long pid = raw_call(SYS_getpid, 0, 0, 0, 0); pid > 0; pid /= 10) {
        digits[count++] = static_cast<char>('0' + pid % 10);
    }
    char *to = path;
    for (const char *c = "/proc/"; *c != '\0'; ++c) {
        *to++ = *c;
    }
    while (count > 0) {
        *to++ = digits[--count];
    }
    for (const char *c = "/fd"; *c != '\0'; ++c) {
        *to++ = *c;
    }
    *to = '\0';
}

CHILD_CODE void close_listed_descriptors(int folder)
{
    alignas(linux_dirent64) char entries[4096];
    for (;;) {
        const long bytes = raw_call(SYS_getdents64, folder, address_of(entries), sizeof(entries), 0);
        if (bytes <= 0) {
            return;
        }
        for (long at = 0; at < bytes;) {
            const auto *entry = reinterpret_cast<const linux_dirent64 *>(entries + at);
            const int fd = descriptor_number(entry->d_name);
            if (fd >= first_closed_descriptor && fd != folder) {
                raw_call(SYS_close, fd, 0, 0, 0);
            }
            at += entry->d_reclen;
        }
    }
}

// What the kernel takes for an action: all zero is the default. At least as large as the kernel's.
struct KernelSigaction {
    std::uint64_t words[8];
};
constexpr std::size_t kernel_sigset_size = 8;

CHILD_CODE void set_default_action(int signal_number)
{
    const KernelSigaction action{};
    raw_call(SYS_rt_sigaction, signal_number, address_of(&action), 0, kernel_sigset_size);
}

// A real-time signal keeps what exec keeps: an ignored one stays ignored, and one with a handler
// gets its default now, before it is unblocked: no handler may run in the shared memory.
CHILD_CODE void drop_handler(int signal_number)
{
    KernelSigaction action{};
    raw_call(SYS_rt_sigaction, signal_number, 0, address_of(&action), kernel_sigset_size);
    const auto handler = action.words[0];
    if (handler != static_cast<std::uint64_t>(address_of(reinterpret_cast<void *>(SIG_DFL))) &&
        handler != static_cast<std::uint64_t>(address_of(reinterpret_cast<void *>(SIG_IGN)))) {
        set_default_action(signal_number);
    }
}

// Ordinary signals, up to the system's real-time bound, are unblocked and get their defaults. The
// actions come first here: until then everything is blocked.
CHILD_CODE void reset_signals(std::uint64_t mask)
{
    int signal_number = 1;
    for (; signal_number < sysconf(_SC_RTSIG_MAX); ++signal_number) {
        set_default_action(signal_number);
        mask &= ~(std::uint64_t{1} << (signal_number - 1));
    }
    for (; signal_number < NSIG; ++signal_number) {
        drop_handler(signal_number);
    }
    raw_call(SYS_rt_sigprocmask, SIG_SETMASK, address_of(&mask), 0, kernel_sigset_size);
}

CHILD_CODE int run_child(void *argument)
{
    const auto *start = static_cast<const ChildStart *>(argument);
    fdclose();
    reset_signals(start->parent_mask);
    raw_call(SYS_setpgid, 0, 0, 0, 0);
    const char *const arguments[] = {"/bin/sh", "-c", start->command, nullptr};
    raw_call(SYS_execve, address_of(arguments[0]), address_of(arguments), address_of(start->environment), 0);
    // _exit: the exit handlers and the stream buffers are the parent's.
    raw_call(SYS_exit_group, exec_failed, 0, 0, 0);
    return exec_failed;
}

class ChildStack {
public:
    ChildStack()
        : base_(mmap(nullptr, child_stack_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0))
    {
    }
    ~ChildStack()
    {
        if (*this) {
            kesta::ErrnoKept keep;
            munmap(base_, child_stack_size);
        }
    }
    ChildStack(const ChildStack &) = delete;
    ChildStack &operator=(const ChildStack &) = delete;

    explicit operator bool() const { return base_ != MAP_FAILED; }
    void *top() const { return static_cast<char *>(base_) + child_stack_size; }

private:
    void *base_;
};

// All signals are blocked for the life of the object, so that none is handled while a child runs
// in this memory.
class SignalsBlocked {
public:
    SignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked &) = delete;
    SignalsBlocked &operator=(const SignalsBlocked &) = delete;

    std::uint64_t mask_before() const
    {
        std::uint64_t mask;
        memcpy(&mask, &before_, sizeof(mask));
        return mask;
    }

private:
    sigset_t before_;
};

// The parent waits until the child has its program: the cost doesn't grow with its memory.
pid_t start_child(const char *command, char *const *environment)
{
    const ChildStack stack;
    if (!stack) {
        return -1;
    }
    const SignalsBlocked blocked;
    ChildStart start{command, environment, blocked.mask_before()};
    return clone(run_child, stack.top(), CLONE_VM | CLONE_VFORK | SIGCHLD, &start);
}

bool fill_pointers(char *block, EnvironmentPointers &pointers)
{
    const int count = blkstrnum(block);
    if (count > max_environment_strings) {
        FAILURE(ARGUMENT, 0, 1, "[prcfork] too many envs(%d).", count);
        errno = ENOMEM;
        return false;
    }
    std::size_t used = 0;
    for (char *text = blkstrhead(block); text; text = blkstrnext(text)) {
        pointers[used++] = text;
    }
    pointers[used] = nullptr;
    return true;
}

int send_signal(pid_t pid, int signal_number, const char *name)
{
    if (kill(pid, signal_number) == 0) {
        return 0;
    }
    SYSTEM_FAILURE(error, 1, "[prcfork] kill(%d,%s) failed(%d).", pid, name, error);
    return -1;
}

// One look at the child: 1 reaped, 0 still there, -1 failed. The first two are logged by name of
// the signal that ended it.
int try_reap(pid_t pid, const char *signal_name)
{
    const pid_t reaped = waitpid(pid, nullptr, WNOHANG);
    if (reaped > 0) {
        TRACE(1, "[prcfork] kill(%d,%s) success.", pid, signal_name);
        return 1;
    }
    if (reaped < 0) {
        SYSTEM_FAILURE(error, 1, "[prcfork] waitpid(%d) failed(%d).", pid, error);
        return -1;
    }
    return 0;
}

}  // namespace

char *kesta::blkenvalloc(void)
{
    std::size_t sum = 0;
    for (char **variable = environ; variable && *variable; ++variable) {
        sum += strlen(*variable) + 1;
    }
    // An empty environment is a single NUL; it gets a second byte, so that it reads as a block.
    const int size = static_cast<int>(sum + 1);
    char *block = static_cast<char *>(
        kestal_malloc_debug(size < static_cast<int>(sizeof(empty_block)) ? static_cast<int>(sizeof(empty_block)) : size,
                            __FILE__, __LINE__, 0));
    if (!block) {
        const int error = errno;
        FAILURE(MEMORY, 0, 1, "[blkenvalloc] MALLOC(%d) failed(%d).", size, error);
        errno = error;
        return nullptr;
    }
    char *to = block;
    for (char **variable = environ; variable && *variable; ++variable) {
        const std::size_t length = strlen(*variable) + 1;
        memcpy(to, *variable, length);
        to += length;
    }
    *to = '\0';
    return block;
}

void kesta::blkenvfree(char *block) { kestal_free_debug(block, __FILE__, __LINE__, 0); }

int kesta::blksize(const char *block) { return static_cast<int>(block_end(block) + sizeof(empty_block)); }

void kesta::blkcpy(char *destination, const char *source)
{
    memcpy(destination, source, static_cast<std::size_t>(blksize(source)));
}

void kesta::blkstrcat(char *block, const char *text)
{
    const std::size_t end = block_end(block);
    char *to = block + (end == 0 ? 0 : end + 1);
    const std::size_t length = strlen(text) + 1;
    memcpy(to, text, length);
    to[length] = '\0';
}

int kesta::blkstrnum(const char *block)
{
    int count = 0;
    for (char *text = blkstrhead(const_cast<char *>(block)); text; text = blkstrnext(text)) {
        ++count;
    }
    return count;
}

char *kesta::blkstrhead(char *block) { return memcmp(block, empty_block, sizeof(empty_block)) == 0 ? nullptr : block; }

char *kesta::blkstrnext(char *string)
{
    char *next = string + strlen(string) + 1;
    return *next == '\0' ? nullptr : next;
}

CHILD_CODE void kesta::fdclose(void)
{
    char path[1024];
    descriptor_folder(path);
    const long folder = raw_call(SYS_openat, AT_FDCWD, address_of(path), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
    if (folder < 0) {
        return;  // there is no other way of finding descriptors
    }
    close_listed_descriptors(static_cast<int>(folder));
    raw_call(SYS_close, folder, 0, 0, 0);
}

int kesta::prcfork(const char *command, char *block, pid_t *pid)
{
    EnvironmentPointers pointers;
    char *const *environment = environ;
    if (block) {
        if (!fill_pointers(block, pointers)) {
            return -1;
        }
        environment = pointers.data();
    }
    const pid_t child = start_child(command, environment);
    if (child == -1) {
        const int error = errno;
        FAILURE(SYSTEM, error, 1, "[prcfork] fork() failed(%d).", error);
        errno = error;
        return -1;
    }
    *pid = child;
    return 0;
}

int kesta::prckill(pid_t pid)
{
    if (send_signal(pid, SIGTERM, "SIGTERM") != 0) {
        return -1;
    }
    for (int poll = 0; poll < kill_polls; ++poll) {
        if (const int reaped = try_reap(pid, "SIGTERM"); reaped != 0) {
            return reaped > 0 ? 0 : -1;
        }
        usleep(kill_poll_us);
    }
    if (send_signal(pid, SIGKILL, "SIGKILL") != 0) {
        return -1;
    }
    if (const int reaped = try_reap(pid, "SIGKILL"); reaped != 0) {
        return reaped > 0 ? 0 : -1;
    }
    FAILURE(CONTENT, 0, 1, "[prcfork] process(%d) not stopped.", pid);
    return -1;
}
