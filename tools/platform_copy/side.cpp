#include "side.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <vector>

#include "printable.h"

namespace platform_copy {
namespace {

namespace fs = std::filesystem;

constexpr const char *read_word = "--read-state";
constexpr const char *write_word = "--write-state";

fs::path own_program()
{
    std::error_code error;
    fs::path path = fs::read_symlink("/proc/self/exe", error);
    if (error) {
        throw Stopped(exit_failed, "This program can't be found: " + error.message() + ".");
    }
    return path;
}

bool has_libraries(const fs::path &folder)
{
    std::error_code error;
    for (const fs::directory_entry &entry : fs::directory_iterator(folder, error)) {
        if (entry.path().filename().string().starts_with("libsbacc.so")) {
            return true;
        }
    }
    return false;
}

// In a build tree lib/NAME, installed LIBDIR/kesta/NAME; the chosen one's lie beside libkesta.
std::string library_folder(const std::string &name)
{
    const fs::path tree = own_program().parent_path().parent_path();
    for (const fs::path &folder : {tree / "lib" / name, tree / KESTA_INSTALL_LIBDIR / "kesta" / name}) {
        if (name.find('/') == name.npos && !name.empty() && has_libraries(folder)) {
            return folder;
        }
    }
    for (const fs::path &folder : {tree / KESTA_INSTALL_LIBDIR, tree / "lib"}) {
        if (name == KESTA_PLATFORM && has_libraries(folder)) {
            return folder;
        }
    }
    throw Stopped(exit_usage, "There is no platform " + name + " here: install its package, or name another one.");
}

void await(pid_t pid, const std::string &platform)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        const bool told = WIFEXITED(status) && WEXITSTATUS(status) == exit_failed;
        throw Stopped(exit_failed, "Platform " + platform + (told ? " failed." : " ended unexpectedly."));
    }
}

struct Pipe {
    int reading;
    int writing;
};

Pipe make_pipe()
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw Stopped(exit_failed, std::string("No pipe can be made: ") + strerror(errno) + ".");
    }
    return {ends[0], ends[1]};
}

}  // namespace

Side::Side(const std::string &name, const std::string &settings)
    : name_(name), settings_(settings), libraries_(library_folder(name))
{
}

int Side::start(const char *what, int input, int output) const
{
    const std::string program = own_program();
    std::vector<std::string> variables;
    for (char **variable = environ; *variable != nullptr; ++variable) {
        const std::string text = *variable;
        if (!text.starts_with("LD_LIBRARY_PATH=") && (settings_.empty() || !text.starts_with("KESTA_PLATFORM_CONF="))) {
            variables.push_back(text);
        }
    }
    const char *const searched = getenv("LD_LIBRARY_PATH");
    variables.push_back("LD_LIBRARY_PATH=" + libraries_ + (searched && *searched ? std::string(":") + searched : ""));
    if (!settings_.empty()) {
        variables.push_back("KESTA_PLATFORM_CONF=" + settings_);
    }
    std::vector<char *> environment;
    environment.reserve(variables.size() + 1);
    for (std::string &variable : variables) {
        environment.push_back(variable.data());
    }
    environment.push_back(nullptr);
    char *arguments[] = {const_cast<char *>(program.c_str()), const_cast<char *>(what), nullptr};
    posix_spawn_file_actions_t actions;
    (void)posix_spawn_file_actions_init(&actions);
    if (input >= 0) {
        (void)posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    }
    if (output >= 0) {
        (void)posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    }
    pid_t pid = -1;
    const int error = posix_spawn(&pid, program.c_str(), &actions, nullptr, arguments, environment.data());
    (void)posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw Stopped(exit_failed, "Platform " + name_ + " can't be asked: " + strerror(error) + ".");
    }
    return pid;
}

PlatformState Side::read() const
{
    const Pipe told = make_pipe();
    const pid_t pid = start(read_word, -1, told.writing);
    (void)close(told.writing);
    PlatformState state;
    std::string problem;
    try {
        state = receive(told.reading);
    } catch (const Stopped &stopped) {
        problem = stopped.what();
    }
    (void)close(told.reading);
    await(pid, name_);
    if (!problem.empty()) {
        throw Stopped(exit_failed, problem);
    }
    return state;
}

void Side::write(const PlatformState &state) const
{
    const Pipe told = make_pipe();
    const pid_t pid = start(write_word, told.reading, -1);
    (void)close(told.reading);
    try {
        send(state, told.writing);
    } catch (const Stopped &) {
        (void)close(told.writing);
        await(pid, name_);  // it says why
        throw;
    }
    (void)close(told.writing);
    await(pid, name_);
}

int Side::run_as_side(int argc, char **argv)
{
    const std::string what = argc == 2 ? argv[1] : "";
    try {
        if (what == read_word) {
            send(read_state(), STDOUT_FILENO);
            return 0;
        }
        if (what == write_word) {
            write_state(receive(STDIN_FILENO));
            return 0;
        }
    } catch (const Stopped &stopped) {
        std::cerr << engine::printable(stopped.what()) << "\n";
        return exit_failed;
    }
    return -1;
}

}  // namespace platform_copy
