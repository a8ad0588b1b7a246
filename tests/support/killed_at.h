// A piece of work killed with SIGKILL right before its Nth system call that changes a file.
#pragma once

#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <set>

namespace test {

// Whether it was killed; false: it makes no more such calls, and was done.
inline bool killed_at(int n, const std::function<void()> &work)
{
    static const std::set<std::uint64_t> changing{
        SYS_write,    SYS_pwrite64,  SYS_ftruncate, SYS_fsync,  SYS_openat,
        SYS_linkat,   SYS_renameat2, SYS_unlinkat,  SYS_fchmod, SYS_mkdirat,
#ifdef SYS_renameat
        SYS_renameat,
#endif
    };
    const pid_t child = fork();
    if (child == 0) {
        (void)::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        (void)raise(SIGSTOP);
        work();
        _exit(0);
    }
    int status = 0;
    (void)waitpid(child, &status, 0);
    (void)::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    for (int calls = 0; !WIFEXITED(status) && !WIFSIGNALED(status);) {
        (void)::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
        (void)waitpid(child, &status, 0);
        if (!WIFSTOPPED(status) || WSTOPSIG(status) != (SIGTRAP | 0x80)) {
            continue;
        }
        struct __ptrace_syscall_info info {};
        (void)::ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof(info), &info);
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY && changing.contains(info.entry.nr) && ++calls == n) {
            (void)kill(child, SIGKILL);
            (void)waitpid(child, &status, 0);
        }
    }
    return WIFSIGNALED(status);
}

}  // namespace test
