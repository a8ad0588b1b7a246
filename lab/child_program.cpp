#include "child_program.h"

#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "private_namespace.h"

namespace lab {
namespace {

std::vector<char *> arguments_of(const std::vector<std::string> &command)
{
    std::vector<char *> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string &word : command) {
        arguments.push_back(const_cast<char *>(word.c_str()));
    }
    arguments.push_back(nullptr);
    return arguments;
}

int await(pid_t pid)
{
    constexpr int by_signal = 128;
    int status;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : by_signal + WTERMSIG(status);
}

std::string all_of(int fd)
{
    std::string text;
    char buffer[4096];
    for (ssize_t got; (got = read(fd, buffer, sizeof(buffer))) > 0 || (got < 0 && errno == EINTR);) {
        text.append(buffer, got > 0 ? static_cast<std::size_t>(got) : 0);
    }
    (void)close(fd);
    return text;
}

struct Pipe {
    int reading;
    int writing;
};

Pipe make_pipe()
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw Error(std::string("can't make a pipe: ") + strerror(errno));
    }
    return {ends[0], ends[1]};
}

// A process of its own, which tells why it failed. What it says nothing about has been done, or has become a program.
template <typename Act>
pid_t fork_telling(const Pipe &told, const Act &act)
{
    const pid_t pid = fork();
    if (pid < 0) {
        const int error = errno;
        (void)close(told.reading);
        (void)close(told.writing);
        throw Error(std::string("can't make a process: ") + strerror(error));
    }
    if (pid == 0) {
        std::string problem;
        try {
            act();
        } catch (const std::exception &error) {
            problem = error.what();
        }
        (void)!write(told.writing, problem.data(), problem.size());
        _exit(problem.empty() ? 0 : 1);
    }
    (void)close(told.writing);
    return pid;
}

}  // namespace

int run_program(const std::vector<std::string> &command, Shown shown)
{
    std::vector<char *> arguments = arguments_of(command);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (shown != Shown::all) {
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    }
    if (shown == Shown::nothing) {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    }
    pid_t pid;
    const int error = posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error == ENOENT) {
        return program_is_missing;
    }
    if (error != 0) {
        throw Error("can't run " + command[0] + ": " + strerror(error));
    }
    return await(pid);
}

std::string output_of(const std::vector<std::string> &command)
{
    const Pipe output = make_pipe();
    std::vector<char *> arguments = arguments_of(command);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, output.writing, STDOUT_FILENO);
    pid_t pid;
    const int error = posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    (void)close(output.writing);
    const std::string text = all_of(output.reading);
    return error == 0 && await(pid) == 0 ? text : "";
}

void in_own_process(const std::function<void()> &act)
{
    const Pipe told = make_pipe();
    const pid_t pid = fork_telling(told, act);
    const std::string problem = all_of(told.reading);
    const int status = await(pid);
    if (status != 0) {
        throw Error(problem.empty() ? "a process of the lab was killed" : problem);
    }
}

int start_program(const std::vector<std::string> &command,
                  const std::vector<std::pair<std::string, std::string>> &environment, const std::filesystem::path &log,
                  const std::function<void()> &prepare)
{
    const Pipe told = make_pipe();
    const pid_t pid = fork_telling(told, [&] {
        const int input = open("/dev/null", O_RDONLY);
        const int output = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (input < 0 || output < 0) {
            throw Error("can't write " + log.string() + ": " + strerror(errno));
        }
        (void)setsid();
        prepare();
        (void)dup2(input, STDIN_FILENO);
        (void)dup2(output, STDOUT_FILENO);
        (void)dup2(output, STDERR_FILENO);
        for (const auto &[name, value] : environment) {
            setenv(name.c_str(), value.c_str(), 1);
        }
        execvp(command[0].c_str(), arguments_of(command).data());
        throw Error("can't run " + command[0] + ": " + strerror(errno));
    });
    const std::string problem = all_of(told.reading);
    if (!problem.empty()) {
        (void)await(pid);
        throw Error(problem);
    }
    return pid;
}

}  // namespace lab
