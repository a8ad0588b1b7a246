#include "processes.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "text_file.h"

namespace lab {
namespace {

namespace fs = std::filesystem;

constexpr int patience_ms = 2000;

bool was_started_with(const fs::path &process, const std::vector<std::string> &variables)
{
    const std::string environment = '\0' + read_file(process / "environ");
    return std::all_of(variables.begin(), variables.end(), [&](const std::string &variable) {
        return environment.find('\0' + variable + '\0') != std::string::npos;
    });
}

// Waits until the process is gone, without polling it; false after the time.
bool await_end(int pidfd)
{
    struct pollfd watch {
        pidfd, POLLIN, 0
    };
    return poll(&watch, 1, patience_ms) > 0;
}

int descriptor_of(int pid) { return static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); }

}  // namespace

std::vector<int> processes_with(const std::vector<std::string> &variables)
{
    std::vector<int> found;
    for (const fs::directory_entry &entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        const int pid = std::stoi(name);
        if (pid != getpid() && was_started_with(entry.path(), variables)) {
            found.push_back(pid);
        }
    }
    return found;
}

void end_process(int pid)
{
    const int pidfd = descriptor_of(pid);
    if (pidfd < 0) {
        return;  // gone already
    }
    (void)kill(pid, SIGTERM);  // it may be gone
    if (!await_end(pidfd)) {
        (void)kill(pid, SIGKILL);
        (void)await_end(pidfd);
    }
    (void)close(pidfd);
}

void kill_processes(const std::vector<int> &processes)
{
    std::vector<int> descriptors;
    descriptors.reserve(processes.size());
    for (const int pid : processes) {
        descriptors.push_back(descriptor_of(pid));
    }
    for (const int pid : processes) {
        (void)kill(pid, SIGKILL);
    }
    for (const int pidfd : descriptors) {
        if (pidfd >= 0) {
            (void)await_end(pidfd);
            (void)close(pidfd);
        }
    }
}

void stop_process(int pid)
{
    const int pidfd = descriptor_of(pid);
    (void)kill(pid, SIGSTOP);
    // The end of somebody else's child can be awaited, its stop can't.
    struct pollfd watch {
        pidfd, POLLIN, 0
    };
    for (int left = patience_ms; left > 0 && !is_stopped(pid) && poll(&watch, 1, 1) == 0; --left) {
    }
    if (pidfd >= 0) {
        (void)close(pidfd);
    }
}

bool is_stopped(int pid)
{
    const std::string status = read_file("/proc/" + std::to_string(pid) + "/stat");
    const std::size_t name_end = status.rfind(") ");
    return name_end != std::string::npos && name_end + 2 < status.size() && status[name_end + 2] == 'T';
}

}  // namespace lab
