// Starting a command from a process with much memory, beside posix_spawn of the same and a fork.
#include <benchmark/benchmark.h>
#include <kesta/kesta.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

extern char **environ;

// The library asks for the child's end every 100 ms. Here it is woken by the end itself, so that
// the poll's own wait is not measured.
extern "C" int usleep(useconds_t)
{
    siginfo_t ended;
    return waitid(P_ALL, 0, &ended, WEXITED | WNOWAIT);
}

namespace {

constexpr std::size_t touched = std::size_t{1} << 30;

char shell[] = "/bin/sh";
char option[] = "-c";
char command[] = "true";
char *const arguments[] = {shell, option, command, nullptr};

// Ordinary pages: they are what a fork would have to copy the tables of.
void touch_memory()
{
    static void *const memory = [] {
        void *mapped = mmap(nullptr, touched, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapped == MAP_FAILED) {
            abort();
        }
        (void)madvise(mapped, touched, MADV_NOHUGEPAGE);  // where it is not known, all is as asked
        memset(mapped, 1, touched);
        return mapped;
    }();
    benchmark::DoNotOptimize(memory);
}

void library_system(benchmark::State &state)
{
    touch_memory();
    for (auto _ : state) {
        int status = 0;
        if (kestal_system(command, "bench", "0", &status) != KESTA_OK || status != 0) {
            state.SkipWithError("the command failed");
            break;
        }
    }
}
BENCHMARK(library_system)->UseRealTime();

bool reaped(pid_t child)
{
    int status = -1;
    return waitpid(child, &status, 0) == child && status == 0;
}

void raw_posix_spawn(benchmark::State &state)
{
    touch_memory();
    for (auto _ : state) {
        pid_t child;
        if (posix_spawn(&child, shell, nullptr, nullptr, arguments, environ) != 0 || !reaped(child)) {
            state.SkipWithError("the command failed");
            break;
        }
    }
}
BENCHMARK(raw_posix_spawn)->UseRealTime();

void raw_fork(benchmark::State &state)
{
    touch_memory();
    for (auto _ : state) {
        const pid_t child = fork();
        if (child == 0) {
            execv(shell, arguments);
            _exit(127);
        }
        if (child < 0 || !reaped(child)) {
            state.SkipWithError("the command failed");
            break;
        }
    }
}
BENCHMARK(raw_fork)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
