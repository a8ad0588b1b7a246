// kestactl: the operator's command line.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <exception>
#include <filesystem>
#include <iostream>
#include <new>
#include <sstream>
#include <string_view>
#include <system_error>

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
        return ::write(fd_ >= 0 ? fd_ : STDOUT_FILENO, text.data(), text.size()) ==
               static_cast<ssize_t>(text.size());
    }

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

// Help and the version are answers; everything else is wrong usage.
int report_parse(const CLI::App &app, const CLI::ParseError &error, bool json,
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
        return report_parse(app, error, json, channel);
    }
    return perform(action, globals, channel);
}
