#include "packing_program.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

#include "archive_limits.h"

namespace engine {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char *installed_program = "/usr/bin/lbzip2";
constexpr std::uint64_t worth_a_start = std::uint64_t{4} << 20;  // bytes: some of the blocks that are packed one by one
constexpr int look_ms = 100;

struct Actions {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;

    Actions(int input, int output)
    {
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawnattr_init(&attributes);
        sigset_t none;
        sigemptyset(&none);
        sigset_t all;
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &all);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~Actions()
    {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
    Actions(const Actions &) = delete;
    Actions &operator=(const Actions &) = delete;
};

}  // namespace

std::string packing_program(std::uint64_t bytes)
{
    const std::uint64_t threads = packing_threads();
    const long processors = threads == 0 ? sysconf(_SC_NPROCESSORS_ONLN) : 2;
    const bool can_help = threads != 1 && processors > 1 && bytes >= worth_a_start;
    return can_help && access(installed_program, X_OK) == 0 ? installed_program : "";
}

PackingProgram::PackingProgram(const std::string &program, int file, const std::function<void()> &look,
                               std::chrono::milliseconds patience)
    : look_(look), patience_(patience)
{
    // A socket, since who writes to one whose reader has ended gets no signal.
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        return;
    }
    input_ = Descriptor(ends[0]);
    const Descriptor other(ends[1]);
    const Actions actions(other.get(), file);
    std::string name = program;
    std::string threads = "-n" + std::to_string(packing_threads());
    std::array<char *, 3> arguments{name.data(), packing_threads() == 0 ? nullptr : threads.data(), nullptr};
    std::array<char *, 1> environment{nullptr};  // it takes options from there
    if (posix_spawn(&process_, name.c_str(), &actions.actions, &actions.attributes, arguments.data(),
                    environment.data()) != 0) {
        process_ = -1;
        (void)input_.close();
    }
}

PackingProgram::~PackingProgram()
{
    if (process_ > 0) {
        (void)kill(process_, SIGKILL);
        siginfo_t end{};
        while (waitid(P_PID, static_cast<id_t>(process_), &end, WEXITED) != 0 && errno == EINTR) {
        }
    }
}

bool PackingProgram::take(std::string_view bytes)
{
    auto progress = Clock::now();
    while (input_ && !bytes.empty()) {
        const ssize_t taken = send(input_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (taken > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(taken));
            progress = Clock::now();
        } else if (taken < 0 && (errno == EAGAIN || errno == EINTR) && Clock::now() - progress < patience_) {
            look_();
            pollfd room{input_.get(), POLLOUT, 0};
            (void)poll(&room, 1, look_ms);
        } else {
            return false;
        }
    }
    return bytes.empty();
}

bool PackingProgram::finish()
{
    if (!input_ || !input_.close()) {
        return false;
    }
    bool well = false;
    for (const auto begin = Clock::now(); !has_ended(well);) {
        if (Clock::now() - begin >= patience_) {
            return false;
        }
        look_();
        (void)poll(nullptr, 0, 2);
    }
    return well;
}

bool PackingProgram::has_ended(bool &well)
{
    siginfo_t end{};
    if (waitid(P_PID, static_cast<id_t>(process_), &end, WEXITED | WNOHANG) != 0) {
        if (errno == EINTR) {
            return false;
        }
        process_ = -1;  // nobody's child any more
        return true;
    }
    if (end.si_pid == 0) {
        return false;
    }
    process_ = -1;
    well = end.si_code == CLD_EXITED && end.si_status == 0;
    return true;
}

}  // namespace engine
