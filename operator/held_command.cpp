#include "held_command.h"

#include <errno.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "failure.h"

namespace engine {
namespace {

// The command gets the signal mask that the program was started with.
pid_t start(const std::vector<std::string> &command, const sigset_t &mask)
{
    std::vector<char *> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string &word : command) {
        arguments.push_back(const_cast<char *>(word.c_str()));
    }
    arguments.push_back(nullptr);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &mask);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    pid_t child = -1;
    const int error = posix_spawnp(&child, arguments[0], nullptr, &attributes, arguments.data(), environ);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) {
        throw Failure(Exit::usage, "not-started",
                      "The command '" + command[0] + "' can't be run: " + strerror(error) + ".",
                      "Give a command that exists, behind --.");
    }
    return child;
}

bool has_ended(pid_t child, CommandEnd &end)
{
    int status = 0;
    if (waitpid(child, &status, WNOHANG) != child) {
        return false;
    }
    if (WIFSIGNALED(status)) {
        end.signal = WTERMSIG(status);
        end.exit_code = ended_by_signal + end.signal;
    } else {
        end.exit_code = WEXITSTATUS(status);
    }
    return true;
}

// Whether a signal's default action is the end of the program, and it would be taken. SIGKILL can't be
// held. A fault of the program's own ends it all the same.
bool ends_the_program(int number)
{
    for (const int harmless : {SIGKILL, SIGSTOP, SIGCHLD, SIGCONT, SIGTSTP, SIGTTIN, SIGTTOU, SIGURG, SIGWINCH}) {
        if (number == harmless) {
            return false;
        }
    }
    struct sigaction now {};
    return sigaction(number, nullptr, &now) == 0 && now.sa_handler != SIG_IGN;
}

// What the terminal sends has reached the command as well.
bool came_from_terminal(const siginfo_t &signal)
{
    return signal.si_code == SI_KERNEL &&
           (signal.si_signo == SIGINT || signal.si_signo == SIGQUIT || signal.si_signo == SIGHUP);
}

}  // namespace

HeldSignals::HeldSignals()
{
    sigemptyset(&ending_);
    for (int number = 1; number <= SIGRTMAX; ++number) {
        if (ends_the_program(number)) {
            sigaddset(&ending_, number);  // refused for the two that the C library keeps
        }
    }
    sigset_t held = ending_;
    sigaddset(&held, SIGCHLD);
    sigprocmask(SIG_BLOCK, &held, &before_);
}

HeldSignals::~HeldSignals() { sigprocmask(SIG_SETMASK, &before_, nullptr); }

int HeldSignals::wait(int seconds) const
{
    const struct timespec limit {
        seconds, 0
    };
    const int number = sigtimedwait(&ending_, nullptr, &limit);
    return number > 0 ? number : 0;
}

bool HeldSignals::is_pending() const
{
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    sigset_t both;
    sigandset(&both, &pending, &ending_);
    return sigisemptyset(&both) == 0;
}

CommandEnd HeldSignals::run(const std::vector<std::string> &command) const
{
    const pid_t child = start(command, before_);
    CommandEnd end;
    while (!has_ended(child, end)) {
        siginfo_t signal;
        sigset_t awaited = ending_;
        sigaddset(&awaited, SIGCHLD);
        if (sigwaitinfo(&awaited, &signal) < 0 || signal.si_signo == SIGCHLD) {
            continue;
        }
        if (!came_from_terminal(signal)) {
            (void)kill(child, signal.si_signo);  // it may have ended
        }
    }
    return end;
}

}  // namespace engine
