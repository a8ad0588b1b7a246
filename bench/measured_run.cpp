// Runs a command again and again, and prints one JSON text: how long it took, how many instructions of program and kernel
// it and its children made where the machine counts them, and the most memory that one of them had.
//   measured_run TIMES [--before COMMAND] -- COMMAND [ARGUMENT...]
// The command of --before is for the shell, and is not measured.
#include <linux/perf_event.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Run {
    double seconds = 0;
    double processor_seconds = 0;
    std::optional<std::uint64_t> instructions;
    long peak_kib = 0;
    bool succeeded = false;
};

// Counts from the child's exec on; -1 where that can't be counted.
int count_instructions(pid_t child)
{
    struct perf_event_attr what {};
    what.type = PERF_TYPE_HARDWARE;
    what.size = sizeof(what);
    what.config = PERF_COUNT_HW_INSTRUCTIONS;
    what.disabled = 1;
    what.inherit = 1;
    what.enable_on_exec = 1;
    return static_cast<int>(syscall(SYS_perf_event_open, &what, child, -1, -1, PERF_FLAG_FD_CLOEXEC));
}

double seconds_of(const timeval &time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

Run run(char *const *command)
{
    std::array<int, 2> gate{};
    if (pipe(gate.data()) != 0) {
        abort();
    }
    const pid_t child = fork();
    if (child == 0) {
        char byte;
        (void)close(gate[1]);
        (void)!read(gate[0], &byte, 1);
        (void)close(gate[0]);
        execvp(command[0], command);
        _exit(127);
    }
    const int counter = count_instructions(child);
    (void)close(gate[0]);
    const auto begin = Clock::now();
    (void)close(gate[1]);
    int status = 0;
    struct rusage used {};
    Run result;
    result.succeeded = wait4(child, &status, 0, &used) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    result.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    result.processor_seconds = seconds_of(used.ru_utime) + seconds_of(used.ru_stime);
    result.peak_kib = used.ru_maxrss;
    std::uint64_t counted = 0;
    if (counter >= 0 && read(counter, &counted, sizeof(counted)) == sizeof(counted)) {
        result.instructions = counted;
    }
    (void)close(counter);
    return result;
}

template <typename Value>
void print(const char *name, const std::vector<Run> &runs, const Value &value)
{
    printf("\"%s\": [", name);
    for (std::size_t i = 0; i < runs.size(); ++i) {
        printf("%s%s", i == 0 ? "" : ", ", value(runs[i]).c_str());
    }
    printf("], ");
}

}  // namespace

int main(int argc, char **argv)
{
    const int times = argc > 1 ? atoi(argv[1]) : 0;
    int at = 2;
    const char *before = nullptr;
    if (at + 1 < argc && strcmp(argv[at], "--before") == 0) {
        before = argv[at + 1];
        at += 2;
    }
    if (times < 1 || at + 1 >= argc || strcmp(argv[at], "--") != 0) {
        (void)fprintf(stderr, "usage: measured_run TIMES [--before COMMAND] -- COMMAND [ARGUMENT...]\n");
        return 2;
    }
    // What the commands print is not the answer.
    const int answer = dup(STDOUT_FILENO);
    (void)dup2(STDERR_FILENO, STDOUT_FILENO);
    std::vector<Run> runs;
    for (int i = 0; i < times; ++i) {
        if (before && system(before) != 0) {
            (void)fprintf(stderr, "failed: %s\n", before);
            return 1;
        }
        runs.push_back(run(argv + at + 1));
        if (!runs.back().succeeded) {
            (void)fprintf(stderr, "failed: %s\n", argv[at + 1]);
            return 1;
        }
    }
    (void)dup2(answer, STDOUT_FILENO);
    std::array<double, 1> load{};
    (void)getloadavg(load.data(), 1);
    printf("{");
    print("seconds", runs, [](const Run &one) { return std::to_string(one.seconds); });
    print("processor_seconds", runs, [](const Run &one) { return std::to_string(one.processor_seconds); });
    print("instructions", runs,
          [](const Run &one) { return one.instructions ? std::to_string(*one.instructions) : "null"; });
    print("peak_kib", runs, [](const Run &one) { return std::to_string(one.peak_kib); });
    printf("\"load\": %.2f}\n", load[0]);
    return 0;
}
