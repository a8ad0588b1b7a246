// Processes that call the library one step at a time, in the order that a test chooses.
//
// Each process is a fork of the test with NV memory shared. It stops before each NV transfer, each
// sleep and each mark of its own, and goes on when it is let. They share one virtual clock: what one of
// them sleeps, has passed for the others when they go on.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace test {

class Interleaving {
public:
    Interleaving() = default;
    ~Interleaving();
    Interleaving(const Interleaving &) = delete;
    Interleaving &operator=(const Interleaving &) = delete;

    // Starts a process of a controller, in a mount namespace where /var/run/kesta_sys/tmp is the
    // controller's own folder. It stands before its first step then. Returns its index.
    int start(int controller, const std::function<void()> &body);

    // Lets a process take its step. Returns what it stands before next: "nv_read 600 64",
    // "usleep 100000", "mark TEXT", or "end".
    const std::string &step(int process);

    const std::string &standing(int process) const { return processes_[index(process)].standing; }
    bool ended(int process) const { return standing(process) == "end"; }
    int count() const { return static_cast<int>(processes_.size()); }

    // Ends a process where it stands, as a crash would.
    void kill_process(int process);

    // Steps a process until it stands before a call that begins with the text (and takes at least
    // one step). Fails if it ends first.
    void run_until(int process, const std::string &text);

private:
    struct Process {
        pid_t pid;
        int channel;
        std::string standing;
    };
    static std::size_t index(int process) { return static_cast<std::size_t>(process); }
    void await(Process &process);

    std::vector<Process> processes_;
};

// In a process of an Interleaving: stops before going on.
void mark(const std::string &text);

}  // namespace test
