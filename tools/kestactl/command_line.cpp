#include "command_line.h"

#include <sstream>

namespace kestactl
{
namespace
{

// Help and the version are answers; everything else is wrong usage.
Result answer_of(const CLI::App &app, const CLI::ParseError &error)
{
    if (error.get_exit_code() != 0) {
        throw Failure(Exit::usage, "usage", std::string(error.what()),
                      "See 'kestactl --help', or --help behind a command.");
    }
    std::ostringstream text;
    app.exit(error, text, text);
    return {Exit::done, text.str(), {{"text", text.str()}}, nullptr};
}

}  // namespace

CommandLine::CommandLine()
    : app_(
          "The saved environments of this controller: what there is, what is in force, and "
          "moving it between the storage places.",
          "kestactl")
{
    app_.require_subcommand(1);
    app_.fallthrough();
    app_.footer(exit_codes);
    app_.set_version_flag("--version", "kestactl " KESTA_VERSION);
    app_.add_flag("--json", globals_.json, "Print one JSON text on stdout, errors included");
    app_.add_option("--trace", globals_.trace_level, "Show trace lines up to this level on stderr")
        ->check(CLI::Range(0, 5));
    add_status(app_, globals_, action_);
    add_nv(app_, globals_, action_);
    add_verify(app_, action_);
    add_report(app_, action_);
    add_save(app_, globals_, action_);
    add_accept(app_, globals_, action_);
    add_slot(app_, globals_, action_);
    add_copy(app_, globals_, action_);
    add_repair(app_, globals_, action_);
    add_restore(app_, globals_, action_);
    add_group(app_, globals_, action_);
    add_script(app_, globals_, action_);
    add_identity(app_, globals_, action_);
    add_version(app_, globals_, action_);
    add_lock(app_, globals_, action_);
    add_run(app_, globals_, action_);
    add_completion(app_, action_);
    add_examples(app_,
                 "  kestactl status --archives\n"
                 "  kestactl slot switch --dry-run\n"
                 "  kestactl copy cntbackup2backup\n"
                 "  kestactl restore network --from backup --script update\n"
                 "  kestactl nv read accept-name --json");
}

std::optional<Result> CommandLine::parse(int argc, const char *const *argv)
{
    try {
        app_.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return answer_of(app_, error);
    }
    return std::nullopt;
}

}  // namespace kestactl
