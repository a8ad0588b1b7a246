// kestactl run: run a command the way the appliance's scripts are run.
#include <kesta/kesta.h>
#include <string.h>
#include <sys/wait.h>

#include <memory>

#include "appliance_state.h"
#include "command.h"

namespace kestactl {
namespace {

constexpr std::size_t longest_variable = 63;

struct RunOptions {
    std::vector<std::string> words;
    std::string event = "manual";
    std::string platform_status;
};

struct Ended {
    int exit_code = -1;
    int signal = 0;
};

void check_variable(const std::string &name, const std::string &value)
{
    if (name.size() + 1 + value.size() > longest_variable) {
        throw Failure(Exit::usage, "too-long", name + " would be cut at 63 characters.", "Give a shorter text.");
    }
}

void run(const std::string &command, const RunOptions &options, Ended &ended)
{
    int status = 0;
    if (kestal_system(command.c_str(), options.event.c_str(), options.platform_status.c_str(), &status) != KESTA_OK) {
        fail_call("not-started", "The command could not be run.",
                  "Check the number of processes and the size of the environment (at most 509 "
                  "variables), and --trace 1.");
    }
    if (WIFSIGNALED(status)) {
        ended.signal = WTERMSIG(status);
    } else {
        ended.exit_code = WEXITSTATUS(status);
    }
}

Result run_command(const RunOptions &options, const Globals &globals)
{
    check_variable("KESTA_EVENT", options.event);
    check_variable("KESTA_VRBGETSTAT", options.platform_status);
    const std::string command = joined(options.words);
    Ended ended;
    Plan plan;
    plan.json = {{"command", command}, {"event", options.event}};
    plan.steps.push_back({"run: " + command, {"whatever the command writes"}, [&] {
                              run(command, options, ended);
                          }});
    Result result = carry_out(plan, globals);
    if (globals.dry_run) {
        return result;
    }
    const bool good = ended.signal == 0 && ended.exit_code == 0;
    result.exit = good ? Exit::done : Exit::no;
    result.text = good                ? ""
                  : ended.signal != 0 ? "The command was ended by signal " + std::to_string(ended.signal) + ".\n"
                                      : "The command ended with exit code " + std::to_string(ended.exit_code) + ".\n";
    result.json["exit_code"] = ended.signal == 0 ? Json(ended.exit_code) : Json(nullptr);
    result.json["signal"] = ended.signal != 0 ? Json(ended.signal) : Json(nullptr);
    return result;
}

}  // namespace

void add_run(const Command &app, Globals &globals, Action &action)
{
    auto options = std::make_shared<RunOptions>();
    const Command command =
        app.add_subcommand("run",
                           "Run a shell command as the appliance's scripts are run: its own process group, "
                           "default signals, no inherited descriptors");
    command.add_option("COMMAND", options->words, "The command line; put it behind --").required();
    command.add_option("--event", options->event, "What KESTA_EVENT tells the command").may_be_empty();
    command.add_option("--platform-status", options->platform_status, "What KESTA_VRBGETSTAT tells the command")
        .may_be_empty();
    add_dry_run(command, globals);
    add_examples(command,
                 "  kestactl run -- /etc/kesta_sys/network/env_copy_scr.sh\n"
                 "  kestactl run --event boot -- 'echo $KESTA_EVENT'");
    command.callback([&action, options] {
        action = [options](const Globals &given) {
            return run_command(*options, given);
        };
    });
}

}  // namespace kestactl
