#include "command.h"

#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <iostream>
#include <optional>

#include "appliance_state.h"
#include "current_change.h"
#include "kept_generations.h"
#include "printable.h"

namespace kestactl {
namespace {

Json step_json(const Step &step) { return {{"what", step.what}, {"writes", step.writes}}; }

Result show_plan(const Plan &plan)
{
    Result result;
    result.text = "Nothing is changed. This would be done:\n";
    result.json = plan.json;
    result.json["dry_run"] = true;
    result.json["steps"] = Json::array();
    for (const Step &step : plan.steps) {
        result.text += "  - " + step.what + "\n";
        for (const std::string &place : step.writes) {
            result.text += "      writes " + place + "\n";
        }
        result.json["steps"].push_back(step_json(step));
    }
    return result;
}

// Empty where there is no such file.
std::optional<off_t> bytes_of(const std::string &path)
{
    struct stat status {};
    return !path.empty() && lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) ? std::optional(status.st_size)
                                                                                         : std::nullopt;
}

void tell_progress(const Plan &plan, std::size_t step, const char *event, const Globals &globals)
{
    const std::string &what = plan.steps[step].what;
    const auto bytes = bytes_of(plan.steps[step].measured);
    if (globals.json) {
        Json line{{"event", event}, {"step", step + 1}, {"of", plan.steps.size()}, {"what", what}};
        if (bytes) {
            line["bytes"] = *bytes;
        }
        std::cerr << dumped(line) << std::endl;
    } else if (isatty(STDERR_FILENO) != 0 && std::string(event) == "begin") {
        std::cerr << "[" << step + 1 << "/" << plan.steps.size() << "] " << printable(what)
                  << (bytes ? " (" + std::to_string(*bytes) + " bytes)" : "") << std::endl;
    }
}

void take_step(const Step &step, const Plan &plan)
{
    try {
        ask_both_places();
        step.act();
    } catch (const Failure &failure) {
        if (plan.kept && !plan.kept->notes.empty()) {
            throw with_notes(failure, *plan.kept);
        }
        throw;
    }
}

}  // namespace

void tell_growth(const std::string &path)
{
    static time_t told = time(nullptr);
    constexpr time_t between = 2;  // seconds
    if (const time_t now = time(nullptr); isatty(STDERR_FILENO) != 0 && now - told >= between) {
        told = now;
        if (const auto bytes = bytes_of(path)) {
            std::cerr << "      " << *bytes << " bytes" << std::endl;
        }
    }
}

Result carry_out(const Plan &given, const Globals &globals)
{
    check_comment(globals.keep_rule.comment);
    const Plan plan = with_keeping(given, globals.keep_rule);
    if (globals.dry_run) {
        return show_plan(plan);
    }
    const Json group = plan.json.value("group", Json());
    note_change(group.is_string() ? group.get<std::string>() : "");
    if (plan.shared) {
        honour_command_lock(globals.lock_rule);
    }
    Result result;
    result.json = plan.json;
    result.json["dry_run"] = false;
    result.json["steps"] = Json::array();
    if (!plan.steps.empty()) {
        begin_change();
    }
    for (std::size_t i = 0; i < plan.steps.size(); ++i) {
        const Step &step = plan.steps[i];
        if (plan.long_work) {
            tell_progress(plan, i, "begin", globals);
        }
        take_step(step, plan);
        if (plan.long_work) {
            tell_progress(plan, i, "end", globals);
        }
        result.text += "Done: " + step.what + "\n";
        result.json["steps"].push_back(step_json(step));
    }
    if (plan.kept) {
        tell_kept(result, *plan.kept);
    }
    return result;
}

Result act_and_tell(const Action &action, const Globals &globals)
{
    watch_change(globals.verb, globals.keep_rule.comment);
    try {
        Result result = action(globals);
        const Json version = result.json.is_object() ? result.json.value("version", Json()) : Json();
        if (version.is_number_integer()) {
            note_change_version(version.get<int>());
        }
        if (const std::string missing = end_change({result.exit, "", ""}); !missing.empty()) {
            result.text += missing + "\n";
            result.json["not_logged"] = missing;
        }
        return result;
    } catch (const Failure &failure) {
        (void)end_change({failure.exit(), failure.code(), failure.what()});
        throw;
    } catch (const std::exception &) {
        (void)end_change({Exit::platform, "failed", ""});
        throw;
    }
}

const char *const exit_codes =
    "Exit codes: 0 done, 1 the answer is no or things differ, 2 wrong usage, 3 held by a lock,\n"
    "4 the platform failed, 130 interrupted.";

void add_examples(const Command &command, std::string_view examples)
{
    command.footer(std::string("Examples:\n").append(examples) + "\n\n" + exit_codes);
}

std::string dumped(const Json &json, int indent)
{
    return json.dump_ascii(indent);  // C1 controls and DEL are no control characters to JSON
}

std::string joined(const std::vector<std::string> &words)
{
    std::string text;
    for (const std::string &word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

void confirm(const std::string &question, bool yes)
{
    if (yes) {
        return;
    }
    if (isatty(STDIN_FILENO) == 0) {
        throw Failure(Exit::usage, "not-confirmed", question + " Nobody is there to answer.",
                      "Look at what would be done with --dry-run, then give --yes.");
    }
    std::cerr << printable(question) << " Go on? [yes/no] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    if (answer != "yes") {
        throw Failure(Exit::no, "not-confirmed", "Nothing was changed: the answer was not yes.",
                      "Answer with the whole word, or give --yes.");
    }
}

void add_dry_run(const Command &command, Globals &globals)
{
    command.add_flag("--dry-run", globals.dry_run, "Show what would be done, and change nothing");
}

void add_watch(const Command &command, Globals &globals)
{
    command.add_option("--watch", globals.watch, "Show it again every so many seconds, until Ctrl-C")
        .in_range(1, 86400)
        .option_text("SECONDS");
}

void add_lock_rule(const Command &command, Globals &globals)
{
    command.add_option("--wait", globals.lock_rule.wait, "Seconds to wait for another controller's command lock")
        .not_negative();
    command
        .add_option("--ignore-lock", globals.lock_rule.ignored,
                    "Don't mind the command lock of this controller (CNT0 to CNT3)")
        .option_text("CNTn");
}

}  // namespace kestactl
