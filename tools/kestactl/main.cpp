// kestactl: the operator's command line.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <iostream>
#include <new>
#include <optional>
#include <sstream>
#include <string_view>
#include <system_error>
#include <vector>

#include "command.h"
#include "printable.h"
#include "trace_capture.h"
#include "standard_descriptors.h"

namespace {

using namespace kestactl;

constexpr int schema_version = 1;

// With --json, stdout holds one JSON text and nothing else: what a command or a script prints goes
// to stderr.
class JsonChannel {
public:
    void open()
    {
        fd_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
        (void)dup2(STDERR_FILENO, STDOUT_FILENO);
    }
    bool write(const Json &json) const
    {
        const std::string text = dumped(json, 2) + "\n";
        return ::write(fd(), text.data(), text.size()) ==
               static_cast<ssize_t>(text.size());
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
        channel.write({{"schema_version", schema_version},
                       {"error",
                        {{"exit", code(failure.exit())},
                         {"code", failure.code()},
                         {"message", failure.what()},
                         {"hint", failure.hint()},
                         {"traces", captured_errors()}}}});
    } else {
        std::cerr << printable(std::string("kestactl: ") + failure.what() + "\n" + failure.hint() + "\n");
    }
    return code(failure.exit());
}

int report_result(const Result &result, bool json, const JsonChannel &channel)
{
    bool written;
    if (json) {
        written = channel.write({{"schema_version", schema_version},
                                 {"exit", code(result.exit)},
                                 {"result", result.json}});
    } else {
        std::cout << printable(result.text) << std::flush;
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

struct Words {
    int count;
    char **all;
};

// How many letters have to be changed, put in or left out to make one word of another.
std::size_t distance(const std::string &one, const std::string &other)
{
    std::vector<std::size_t> row(other.size() + 1);
    for (std::size_t i = 0; i <= other.size(); ++i) {
        row[i] = i;
    }
    for (std::size_t i = 1; i <= one.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t k = 1; k <= other.size(); ++k) {
            const std::size_t changed = diagonal + (one[i - 1] == other[k - 1] ? 0 : 1);
            diagonal = row[k];
            row[k] = std::min({row[k] + 1, row[k - 1] + 1, changed});
        }
    }
    return row[other.size()];
}

std::string nearest_command(const CLI::App &command, const std::string &word)
{
    std::string nearest;
    std::size_t least = std::string::npos;
    for (const CLI::App *inner : command.get_subcommands([](const CLI::App *) { return true; })) {
        if (const std::size_t far = distance(word, inner->get_name()); far < least) {
            least = far;
            nearest = inner->get_name();
        }
    }
    return nearest;
}

const CLI::App *inner_command(const CLI::App &command, const std::string &name)
{
    const std::vector<const CLI::App *> found =
        command.get_subcommands([&](const CLI::App *inner) { return inner->get_name() == name; });
    return found.empty() ? nullptr : found.front();
}

// The first word that stands where a command has to, and is none; and which one is meant, perhaps.
std::optional<Failure> unknown_command(const CLI::App &app, int argc, char **argv)
{
    const CLI::App *command = &app;
    for (int i = 1; i < argc && !command->get_subcommands([](const CLI::App *) { return true; }).empty(); ++i) {
        const std::string word = argv[i];
        if (word[0] == '-') {
            const CLI::Option *option = app.get_option_no_throw(word);
            i += option && option->get_expected_max() > 0 ? 1 : 0;
            continue;
        }
        const CLI::App *inner = inner_command(*command, word);
        if (!inner) {
            const std::string near = nearest_command(*command, word);
            const std::string of = command == &app ? "kestactl" : "'kestactl " + command->get_name() + "'";
            return Failure(Exit::usage, "usage", "'" + word + "' is no command of " + of + ".",
                           (near.empty() ? "" : "Did you mean '" + near + "'? ") +
                               std::string("See --help for all of them."));
        }
        command = inner;
    }
    return std::nullopt;
}

// Whatever is interrupted says so, and ends with the same code. Commands that have something to put in order
// hold the signal back, and do it first.
char interrupted_json[256];
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
        (void)snprintf(interrupted_json, sizeof(interrupted_json), "%s\n",
                       dumped({{"schema_version", schema_version},
                               {"error",
                                {{"exit", code(Exit::interrupted)},
                                 {"code", "interrupted"},
                                 {"message", "Interrupted."},
                                 {"hint", ""},
                                 {"traces", Json::array()}}}},
                              -1)
                           .c_str());
    }
    interrupted_process = getpid();
    struct sigaction action {};
    if (sigaction(SIGINT, nullptr, &action) == 0 && action.sa_handler == SIG_DFL) {
        action.sa_handler = end_interrupted;
        (void)sigaction(SIGINT, &action, nullptr);  // programs that are run have it as it was
    }
}

// Help and the version are answers; everything else is wrong usage.
int report_parse(const CLI::App &app, const CLI::ParseError &error, const Words &words, bool json,
                 const JsonChannel &channel)
{
    if (error.get_exit_code() == 0) {
        if (json) {
            std::ostringstream text;
            app.exit(error, text, text);
            return report_result({Exit::done, "", {{"text", text.str()}}, nullptr}, json, channel);
        }
        std::ostringstream text;
        app.exit(error, text, text);
        return report_result({Exit::done, text.str(), {}, nullptr}, json, channel);
    }
    if (const std::optional<Failure> unknown = unknown_command(app, words.count, words.all)) {
        return report_failure(*unknown, json, channel);
    }
    const Failure failure(Exit::usage, "usage", std::string(error.what()),
                          "See 'kestactl --help', or --help behind a command.");
    return report_failure(failure, json, channel);
}

// What the language's library threw, as an operator wants it: its own texts name functions and templates.
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

int perform(const Action &action, const Globals &globals, const JsonChannel &channel)
{
    show_traces(globals.trace_level);
    if (globals.dry_run) {
        withhold_traces();
    }
    try {
        return report_result(action(globals), globals.json, channel);
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

    Globals globals;
    Action action;
    CLI::App app{"The saved environments of this controller: what there is, what is in force, and "
                 "moving it between the storage places.",
                 "kestactl"};
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(exit_codes);
    app.set_version_flag("--version", "kestactl " KESTA_VERSION);
    app.add_flag("--json", globals.json, "Print one JSON text on stdout, errors included");
    app.add_option("--trace", globals.trace_level, "Show trace lines up to this level on stderr")
        ->check(CLI::Range(0, 5));
    add_status(app, globals, action);
    add_nv(app, globals, action);
    add_verify(app, action);
    add_report(app, action);
    add_save(app, globals, action);
    add_accept(app, globals, action);
    add_slot(app, globals, action);
    add_copy(app, globals, action);
    add_repair(app, globals, action);
    add_restore(app, globals, action);
    add_group(app, globals, action);
    add_script(app, globals, action);
    add_identity(app, globals, action);
    add_version(app, globals, action);
    add_lock(app, globals, action);
    add_run(app, globals, action);
    add_completion(app, action);
    add_examples(app, "  kestactl status --archives\n"
                      "  kestactl slot switch --dry-run\n"
                      "  kestactl copy cntbackup2backup\n"
                      "  kestactl restore network --from backup --script update\n"
                      "  kestactl nv read accept-name --json");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return report_parse(app, error, {argc, argv}, json, channel);
    }
    return perform(action, globals, channel);
}
