#include "script_run.h"

#include <errno.h>
#include <kesta/kesta.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>

#include "failure.h"

namespace engine {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int patience_ms = 2000;
constexpr int look_ms = 200;  // how often a signal to this program is looked for
constexpr std::size_t kept_errors = 2000;

// The library's environment block as a list.
class Environment {
public:
    explicit Environment(const ScriptContext &context)
    {
        if (kestal_alloc_envblk(&block_, context.event.c_str(), context.platform_status.c_str()) != KESTA_OK) {
            throw Failure(Exit::platform, "not-started", "The environment for the scripts could not be made.",
                          "Is the environment very large? Look at --trace 1.");
        }
        for (char *at = block_; *at != '\0'; at += strlen(at) + 1) {
            list_.push_back(at);
        }
        list_.push_back(nullptr);
    }
    ~Environment() { kestal_free_envblk(block_); }
    Environment(const Environment &) = delete;
    Environment &operator=(const Environment &) = delete;

    char **list() { return list_.data(); }

private:
    char *block_ = nullptr;
    std::vector<char *> list_;
};

// What a script writes to stderr: shown, and its end kept.
class Errors {
public:
    Errors() : fd_(memfd_create("stderr", MFD_CLOEXEC)) {}
    ~Errors() { (void)close(fd_); }  // nothing was promised to be kept
    Errors(const Errors &) = delete;
    Errors &operator=(const Errors &) = delete;

    int fd() const { return fd_ >= 0 ? fd_ : STDERR_FILENO; }
    std::string end() const
    {
        const off_t size = fd_ >= 0 ? lseek(fd_, 0, SEEK_END) : 0;
        const off_t from = size > static_cast<off_t>(kept_errors) ? size - static_cast<off_t>(kept_errors) : 0;
        std::string text(static_cast<std::size_t>(size - from), '\0');
        const ssize_t got = text.empty() ? 0 : pread(fd_, text.data(), text.size(), from);
        text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        while (!text.empty() && text.back() == '\n') {
            text.pop_back();
        }
        return text;
    }

private:
    int fd_;
};

pid_t start(const std::string &command, Environment &environment, const Errors &errors)
{
    std::string shell = "/bin/sh";
    std::string option = "-c";
    std::string text = command;
    char *arguments[] = {shell.data(), option.data(), text.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", 0, 0);
    posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errors.fd(), STDERR_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    pid_t child = -1;
    const int error = posix_spawn(&child, shell.c_str(), &actions, &attributes, arguments, environment.list());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw Failure(Exit::platform, "not-started",
                      "The script '" + command + "' can't be started: " + strerror(error) + ".",
                      "Is /bin/sh there, and memory left?");
    }
    return child;
}

// A script that runs, and how its end is waited for.
struct Running {
    explicit Running(pid_t started) : child(started), pidfd(static_cast<int>(syscall(SYS_pidfd_open, started, 0))) {}
    ~Running()
    {
        if (pidfd >= 0) {
            (void)close(pidfd);  // nothing was written
        }
    }
    Running(const Running &) = delete;
    Running &operator=(const Running &) = delete;

    pid_t child;
    int pidfd;  // negative where the kernel has none to give: it is looked every few milliseconds then
};

bool has_ended(pid_t child)
{
    siginfo_t ended{};
    // It stays to be reaped.
    return waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT) != 0 || ended.si_pid == child;
}

// Waits for the end of a script, at most so long. Whether it has ended.
bool await(const Running &script, int milliseconds)
{
    if (script.pidfd >= 0) {
        struct pollfd watch {
            script.pidfd, POLLIN, 0
        };
        return poll(&watch, 1, milliseconds) > 0;
    }
    const Clock::time_point limit = Clock::now() + std::chrono::milliseconds(milliseconds);
    while (!has_ended(script.child)) {
        if (Clock::now() >= limit) {
            return false;
        }
        (void)poll(nullptr, 0, 10);
    }
    return true;
}

void stop(const Running &script)
{
    (void)kill(-script.child, SIGTERM);  // it may be gone
    if (!await(script, patience_ms)) {
        (void)kill(-script.child, SIGKILL);  // waitpid waits for its end
    }
}

// Whether the script has to be stopped: too long, or this program is asked to end.
bool must_stop(const ScriptContext &context, Clock::time_point begun, const HeldSignals &signals, const Running &script,
               bool &timed_out)
{
    while (!await(script, look_ms)) {
        if (Clock::now() - begun >= std::chrono::seconds(context.timeout)) {
            timed_out = true;
            return true;
        }
        if (signals.is_pending()) {
            return true;
        }
    }
    return false;
}

}  // namespace

ScriptEnd run_script(const std::string &command, const ScriptContext &context, const HeldSignals &signals)
{
    Environment environment(context);
    const Errors errors;
    const Clock::time_point begun = Clock::now();
    const Running script(start(command, environment, errors));
    ScriptEnd end;
    end.command = command;
    if (must_stop(context, begun, signals, script, end.timed_out)) {
        stop(script);
    }
    int status = 0;
    while (waitpid(script.child, &status, 0) < 0 && errno == EINTR) {
    }
    end.seconds = std::chrono::duration<double>(Clock::now() - begun).count();
    end.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 0;
    end.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    end.errors = errors.end();
    return end;
}

std::string describe(const ScriptEnd &end)
{
    char seconds[32];
    snprintf(seconds, sizeof(seconds), " after %.1f s", end.seconds);
    std::string text = end.timed_out    ? "stopped, it did not end in time,"
                       : end.signal > 0 ? "ended by signal " + std::to_string(end.signal)
                                        : "exit code " + std::to_string(end.exit_code);
    text += seconds;
    return end.errors.empty() ? text : text + ": " + end.errors;
}

}  // namespace engine
