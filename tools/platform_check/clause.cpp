#include "clause.h"

#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <thread>

namespace platform_check
{
namespace
{

constexpr unsigned longest_check_s = 60;

std::string text_of(int from)
{
    std::string text;
    std::array<char, 512> bytes{};
    for (ssize_t got = 0; (got = read(from, bytes.data(), bytes.size())) > 0;) {
        text.append(bytes.data(), static_cast<std::size_t>(got));
    }
    return text;
}

Outcome told_by(int status, const std::string &text)
{
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status) == 0 ? "" : text;
    }
    return WTERMSIG(status) == SIGALRM
               ? "it hangs"
               : "the process is ended by signal " + std::to_string(WTERMSIG(status)) + " (" +
                     strsignal(WTERMSIG(status)) + ")";
}

}  // namespace

Outcome in_own_process(const std::function<Outcome()> &check)
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return "no pipe can be made";
    }
    const pid_t child = fork();
    if (child == 0) {
        (void)close(ends[0]);
        alarm(longest_check_s);
        const Outcome outcome = check();
        (void)!write(ends[1], outcome.data(), outcome.size());
        _exit(outcome.empty() ? 0 : 1);
    }
    (void)close(ends[1]);
    const std::string text = text_of(ends[0]);
    (void)close(ends[0]);
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child ? told_by(status, text)
                                                            : "no process can be started";
}

bool in_process(const std::function<bool()> &body)
{
    constexpr unsigned longest_s = 20;
    const pid_t child = fork();
    if (child == 0) {
        alarm(longest_s);
        _exit(body() ? 0 : 1);
    }
    int status = -1;
    return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

Outcome in_threads(int count, const std::function<Outcome(int)> &body)
{
    std::vector<Outcome> outcomes(static_cast<std::size_t>(count));
    std::vector<std::thread> threads;
    threads.reserve(outcomes.size());
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&, i] { outcomes[static_cast<std::size_t>(i)] = body(i); });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    for (const Outcome &outcome : outcomes) {
        if (!outcome.empty()) {
            return outcome;
        }
    }
    return "";
}

Outcome while_another_writes(const std::function<void()> &writes,
                             const std::function<Outcome()> &look)
{
    const pid_t writer = fork();
    if (writer == 0) {
        writes();
        _exit(0);
    }
    Outcome outcome;
    for (int status = 0; waitpid(writer, &status, WNOHANG) == 0;) {
        if (const Outcome seen = look(); !seen.empty()) {
            outcome = seen;
        }
    }
    return outcome;
}

}  // namespace platform_check
