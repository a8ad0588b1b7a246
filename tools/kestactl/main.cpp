// kestactl: the operator's command line.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <exception>
#include <filesystem>
#include <iostream>
#include <new>
#include <string_view>
#include <system_error>

#include "command_line.h"
#include "shown_result.h"
#include "standard_descriptors.h"
#include "trace_capture.h"

namespace {

using namespace kestactl;

// With --json, stdout holds one JSON text and nothing else: what a command or a script prints goes
// to stderr.
class JsonChannel {
public:
    void open()
    {
        fd_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
        (void)dup2(STDERR_FILENO, STDOUT_FILENO);
    }
    bool write(const std::string &text) const
    {
        return ::write(fd(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }

    int fd() const { return fd_ >= 0 ? fd_ : STDOUT_FILENO; }

private:
    int fd_ = -1;
};

// Also for wrong usage, where no option has been parsed yet.
bool wants_json(int argc, char **argv)
{
    for (int i = 1; i < argc && std::string_view(argv[i]) != "--"; ++i) {
        if (std::string_view(argv[i]) == "--json") {
            return true;
        }
    }
    return false;
}

int code(Exit exit) { return static_cast<int>(exit); }

int report_failure(const Failure &failure, bool json, const JsonChannel &channel)
{
    if (json) {
        channel.write(shown_failure(failure, Form::json));
    } else {
        std::cerr << shown_failure(failure, Form::text);
    }
    return code(failure.exit());
}

// Only a terminal is coloured, and none whose user does not want it.
bool wants_colours()
{
    const char *const no_color = getenv("NO_COLOR");
    const char *const terminal = getenv("TERM");
    return isatty(STDOUT_FILENO) != 0 && (!no_color || *no_color == '\0') && terminal &&
           std::string_view(terminal) != "dumb";
}

std::string as_shown(const Result &result)
{
    const std::string text = shown_result(result, Form::text);
    return wants_colours() ? coloured(text) : text;
}

int report_result(const Result &result, bool json, const JsonChannel &channel, bool quiet = false)
{
    bool written;
    if (json) {
        written = channel.write(shown_result(result, Form::json));
    } else {
        std::cout << (quiet ? "" : as_shown(result)) << std::flush;
        written = static_cast<bool>(std::cout);
    }
    if (!written && result.unwritten) {
        result.unwritten();
    }
    if (!written) {
        std::cerr << "kestactl: the result could not be written to standard output.\n";
        return code(Exit::platform);
    }
    return code(result.exit);
}

// Whatever is interrupted says so, and ends with the same code. Commands that have something to put in order
// hold the signal back, and do it first.
char interrupted_json[1024];
int interrupted_fd = -1;
pid_t interrupted_process = 0;

extern "C" void end_interrupted(int)
{
    constexpr char text[] = "kestactl: Interrupted.\n";
    if (getpid() != interrupted_process) {  // a child that has not become its program yet
        _exit(code(Exit::interrupted));
    }
    if (interrupted_fd >= 0) {
        (void)!write(interrupted_fd, interrupted_json, strlen(interrupted_json));
    } else {
        (void)!write(STDERR_FILENO, text, sizeof(text) - 1);
    }
    _exit(code(Exit::interrupted));
}

void tell_interruptions(bool json, const JsonChannel &channel)
{
    if (json) {
        interrupted_fd = channel.fd();
        const Failure failure(Exit::interrupted, "interrupted", "Interrupted.", "");
        (void)snprintf(interrupted_json, sizeof(interrupted_json), "%s", shown_failure(failure, Form::json).c_str());
    }
    interrupted_process = getpid();
    struct sigaction action {};
    if (sigaction(SIGINT, nullptr, &action) == 0 && action.sa_handler == SIG_DFL) {
        action.sa_handler = end_interrupted;
        (void)sigaction(SIGINT, &action, nullptr);  // programs that are run have it as it was
    }
}

// What the language's library threw, as an operator wants it: its own texts name functions and
// templates.
Failure in_words(const std::exception &error)
{
    if (dynamic_cast<const std::bad_alloc *>(&error)) {
        return {Exit::platform, "no-memory", "There is not enough memory for this.",
                "End other programs, or give the command more memory, and run it again."};
    }
    if (const auto *file = dynamic_cast<const std::filesystem::filesystem_error *>(&error)) {
        const std::string &path = file->path1().native();
        return {Exit::platform, "file-failed",
                (path.empty() ? "A file" : path) + " could not be used: " + file->code().message() + ".",
                "Check the path and the rights of its folders, then run the command again."};
    }
    if (const auto *system = dynamic_cast<const std::system_error *>(&error)) {
        return {Exit::platform, "system-failed", "The system refused something: " + system->code().message() + ".",
                "Look at --trace 1 for the last call before it."};
    }
    return {Exit::platform, "failed", "Something went wrong that kestactl has no words for.",
            "Look at --trace 1, and report what it shows."};
}

// Once, or again and again until somebody ends it or nobody reads it any more.
int act_and_report(const Action &action, const Globals &globals, const JsonChannel &channel)
{
    constexpr const char *clear_terminal = "\033[H\033[2J";
    for (;;) {
        const Result result = act_and_tell(action, globals);
        if (globals.watch && !globals.json && isatty(STDOUT_FILENO) != 0) {
            std::cout << clear_terminal;
        }
        const int exit = report_result(result, globals.json, channel, globals.quiet);
        if (!globals.watch || !std::cout) {
            return exit;
        }
        const timespec pause{*globals.watch, 0};
        (void)nanosleep(&pause, nullptr);
    }
}

int perform(const Action &action, const Globals &globals, const JsonChannel &channel)
{
    show_traces(globals.trace_level);
    if (globals.dry_run) {
        withhold_traces();
    }
    try {
        return act_and_report(action, globals, channel);
    } catch (const Failure &failure) {
        return report_failure(failure, globals.json, channel);
    } catch (const std::exception &error) {
        return report_failure(in_words(error), globals.json, channel);
    }
}

}  // namespace

int main(int argc, char **argv)
{
    kesta::open_standard_descriptors();
    (void)signal(SIGCHLD, SIG_DFL);  // ignored by a parent, it would hide how commands end
    JsonChannel channel;
    const bool json = wants_json(argc, argv);
    if (json) {
        channel.open();
    }

    tell_interruptions(json, channel);
    CommandLine line(argc, argv);
    try {
        if (const auto answer = line.parse(argc, argv)) {
            return report_result(*answer, json, channel);
        }
    } catch (const Failure &failure) {
        return report_failure(failure, json, channel);
    }
    return perform(line.action(), line.globals(), channel);
}
