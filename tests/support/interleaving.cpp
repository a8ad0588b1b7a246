#include "interleaving.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "controller_state.h"
#include "test_platform.h"

namespace test {
namespace {

constexpr std::size_t message_size = 64;
int channel_of_this_process = -1;
std::int64_t wall_seconds_of_this_process = 0;  // when the clock stands at 0

// One step of one process at a time: nobody else touches it meanwhile.
std::int64_t *shared_clock()
{
    static void *const clock =
        mmap(nullptr, sizeof(std::int64_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return static_cast<std::int64_t *>(clock);
}

[[noreturn]] void give_up(const char *what)
{
    fprintf(stderr, "a process of the interleaving: %s: %s\n", what, strerror(errno));
    _exit(2);
}

void announce(const std::string &text)
{
    char message[message_size] = "";
    text.copy(message, message_size - 1);
    char go = 0;
    std::int64_t &now = *shared_clock();
    now = std::max(now, platform().clock_us);
    if (send(channel_of_this_process, message, message_size, MSG_NOSIGNAL) != static_cast<ssize_t>(message_size) ||
        recv(channel_of_this_process, &go, 1, 0) != 1) {
        _exit(0);  // the test has ended
    }
    platform().clock_us = std::max(now, platform().clock_us);
    platform().wall_seconds = wall_seconds_of_this_process + platform().clock_us / 1'000'000;
}

void use_folder_of(int controller)
{
    const std::string own = "/var/run/kesta_sys/cnt" + std::to_string(controller);
    if (unshare(CLONE_NEWNS) != 0 || mount(own.c_str(), "/var/run/kesta_sys/tmp", nullptr, MS_BIND, nullptr) != 0) {
        give_up("can't give the controller a folder of its own");
    }
}

[[noreturn]] void run(int number, int controller, int channel, const std::function<void()> &body)
{
    channel_of_this_process = channel;
    // No two start in the same second: each has a token of its own.
    wall_seconds_of_this_process = 999'500 + 100 * number;
    platform().wall_seconds = wall_seconds_of_this_process + platform().clock_us / 1'000'000;
    use_folder_of(controller);
    controller_state.own_number = controller;
    platform().before_call = [](const std::string &call) {
        if (call.rfind("nv_", 0) == 0 || call.rfind("usleep", 0) == 0) {
            announce(call);
        }
    };
    body();
    _exit(testing::Test::HasFailure() ? 1 : 0);
}

}  // namespace

void mark(const std::string &text) { announce("mark " + text); }

int Interleaving::start(int controller, const std::function<void()> &body)
{
    std::filesystem::create_directories("/var/run/kesta_sys/cnt" + std::to_string(controller));
    if (processes_.empty()) {
        *shared_clock() = platform().clock_us;
    }
    int channels[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, channels) != 0) {
        give_up("socketpair");
    }
    const pid_t pid = fork();
    if (pid < 0) {
        give_up("fork");
    }
    if (pid == 0) {
        close(channels[0]);
        for (const Process &other : processes_) {
            close(other.channel);
        }
        run(count(), controller, channels[1], body);
    }
    close(channels[1]);
    processes_.push_back({pid, channels[0], ""});
    await(processes_.back());
    return count() - 1;
}

void Interleaving::await(Process &process)
{
    char message[message_size] = "";
    if (recv(process.channel, message, message_size, 0) == static_cast<ssize_t>(message_size)) {
        process.standing = message;
        return;
    }
    process.standing = "end";
    int status = -1;
    EXPECT_EQ(waitpid(process.pid, &status, 0), process.pid);
    EXPECT_EQ(status, 0) << "a process of the interleaving failed";
    process.pid = -1;
}

const std::string &Interleaving::step(int number)
{
    Process &process = processes_[index(number)];
    EXPECT_NE(process.standing, "end") << "no step left";
    const char go = 1;
    EXPECT_EQ(send(process.channel, &go, 1, MSG_NOSIGNAL), 1);
    await(process);
    return process.standing;
}

void Interleaving::run_until(int process, const std::string &text)
{
    for (int steps = 0; steps < 10000; ++steps) {
        const std::string &now = step(process);
        if (now.rfind(text, 0) == 0) {
            return;
        }
        if (now == "end") {
            break;
        }
    }
    ADD_FAILURE() << "process " << process << " never got to \"" << text << "\"";
}

void Interleaving::kill_process(int number)
{
    Process &process = processes_[index(number)];
    if (process.pid > 0) {
        kill(process.pid, SIGKILL);
        int status = 0;
        EXPECT_EQ(waitpid(process.pid, &status, 0), process.pid);
        process.pid = -1;
    }
    process.standing = "end";
}

Interleaving::~Interleaving()
{
    for (int i = 0; i < count(); ++i) {
        kill_process(i);
        close(processes_[index(i)].channel);
    }
}

}  // namespace test
