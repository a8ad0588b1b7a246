// Running a command while something is held, so that it is let go on every way out.
#pragma once

#include <signal.h>

#include <string>
#include <vector>

namespace engine {

// What is added to a signal's number to make an exit code of it.
inline constexpr int ended_by_signal = 128;

// How a command ended: its exit code, or 128 and the signal's number.
struct CommandEnd {
    int exit_code = 0;
    int signal = 0;
};

// While this lives, signals that would end the program wait: all but SIGKILL, whether somebody sends them, a
// timer runs out, a reader goes away or a limit is met. They are passed on to a command that
// runs, and end what is waited for.
class HeldSignals {
public:
    HeldSignals();
    ~HeldSignals();
    HeldSignals(const HeldSignals &) = delete;
    HeldSignals &operator=(const HeldSignals &) = delete;

    // Waits so long for a signal. Returns its number, or 0.
    int wait(int seconds) const;

    // A signal that has come meanwhile, or 0.
    int pending() const { return wait(0); }

    // Whether one has come; it stays pending.
    bool is_pending() const;

    // Runs a command to its end. Throws Failure if it can't be started.
    CommandEnd run(const std::vector<std::string> &command) const;

private:
    sigset_t ending_;
    sigset_t before_;
};

}  // namespace engine
