// kestactl metrics and check: the state of this controller for programs that watch it.
#include <limits.h>

#include <memory>

#include "command.h"
#include "metrics.h"
#include "whole_file.h"

namespace kestactl {
namespace {

struct WatchOptions {
    bool verify = false;
    bool drift = false;
    std::optional<int> max_age;  // hours
    std::string output;
};

constexpr std::int64_t seconds_of_hour = 3600;

ControllerState state_for(const WatchOptions &options)
{
    return options.verify ? verified_state() : controller_state();
}

// Where it goes to a file, what stood there is there whole until it is replaced.
void deliver(Result &result, const std::string &text, const std::string &path)
{
    if (path.empty()) {
        result.text = text;
        return;
    }
    ExportedFile file(path);
    file.write(text);
    file.publish();
    result.text = "Written to " + path + ".\n";
}

Result metrics(const WatchOptions &options)
{
    const ControllerState state = state_for(options);
    const std::string text = metrics_text(state);
    Result result;
    result.exit = state.unanswered.empty() ? Exit::done : Exit::platform;
    result.json = {{"metrics", text}, {"unanswered", state.unanswered}};
    deliver(result, text, options.output);
    return result;
}

CheckAnswer checked(const WatchOptions &options)
{
    try {
        const CheckRule rule{options.max_age.value_or(0) * seconds_of_hour, options.drift};
        return check_answer(state_for(options), rule);
    } catch (const Failure &failure) {
        return {Health::unknown, std::string("KESTA UNKNOWN - ") + failure.what() + "\n"};
    }
}

// The exit codes are those of monitoring plugins: 0 ok, 1 warning, 2 critical, 3 unknown.
Result check(const WatchOptions &options)
{
    const CheckAnswer answer = checked(options);
    Result result;
    result.json = {{"health", static_cast<int>(answer.health)}, {"line", answer.line}};
    deliver(result, answer.line, options.output);
    result.exit = static_cast<Exit>(static_cast<int>(answer.health));
    return result;
}

void add_common(const Command &command, WatchOptions &options)
{
    command.add_flag("--verify", options.verify, "Run verify as well: it reads every archive");
    command.add_option("--output", options.output, "Write it to this file, which is replaced whole")
        .option_text("FILE");
}

}  // namespace

void add_metrics(const Command &app, Action &action)
{
    auto options = std::make_shared<WatchOptions>();
    const Command command =
        app.add_subcommand("metrics", "Print ages, versions, locks and findings in the OpenMetrics text format");
    add_common(command, *options);
    command.callback([&action, options] {
        action = [options](const Globals &) {
            return metrics(*options);
        };
    });
    add_examples(command,
                 "  kestactl metrics\n"
                 "  kestactl metrics --verify --output /var/lib/prometheus/node-exporter/kesta.prom");
}

void add_check(const Command &app, Action &action)
{
    auto options = std::make_shared<WatchOptions>();
    const Command command =
        app.add_subcommand("check",
                           "One line for a monitoring system; exit code 0 ok, 1 warning, 2 critical, 3 unknown");
    add_common(command, *options);
    command.add_option("--max-age", options->max_age, "Hours since the last save that are a warning")
        .in_range(1, INT_MAX)
        .option_text("HOURS");
    command.add_flag("--drift", options->drift, "A warning where files have changed since the save; with --verify");
    command.callback([&action, options] {
        action = [options](const Globals &) {
            return check(*options);
        };
    });
    add_examples(command,
                 "  kestactl check --max-age 26\n"
                 "  kestactl check --verify");
}

}  // namespace kestactl
