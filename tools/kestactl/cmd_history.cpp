// kestactl history: the archives that were there before, one of them in full, and one dropped.
#include <time.h>

#include <memory>

#include "all_controllers.h"
#include "appliance_state.h"
#include "change_log.h"
#include "command.h"
#include "held_lock.h"
#include "history.h"
#include "history_rows.h"
#include "names.h"
#include "overview.h"
#include "storage_places.h"

namespace kestactl {
namespace {

struct HistoryOptions {
    std::string group;
    std::string since;
    std::string until;
    std::string versions;
    bool oneline = false;
    bool all = false;
    std::string generation;
    bool yes = false;
};

HistoryFilter filter_of(const HistoryOptions &options)
{
    HistoryFilter filter;
    if (!options.group.empty()) {
        check_group(options.group);
        filter.group = options.group;
    }
    const time_t now = time(nullptr);
    if (!options.since.empty()) {
        filter.since = parse_time(options.since, now);
    }
    if (!options.until.empty()) {
        filter.until = parse_time(options.until, now);
    }
    if (!options.versions.empty()) {
        parse_versions(options.versions, filter);
    }
    return filter;
}

Result list(const HistoryFilter &filter, bool oneline)
{
    Result result;
    result.json = {{"generations", Json::array()}};
    for (const Generation &generation : history(filter)) {
        result.json["generations"].push_back(history_json(generation));
        result.text += oneline               ? history_line(generation)
                       : result.text.empty() ? history_lines(generation)
                                             : "\n" + history_lines(generation);
    }
    if (result.text.empty()) {
        result.text = "Nothing was kept yet.\n";
    }
    if (const auto fault = fault_of_changes()) {
        const std::string note = std::string(fault->what()) + " So how they ended is not known. " + fault->hint();
        result.json["notes"] = Json::Array{note};
        result.text += "\n" + note + "\n";
        result.exit = Exit::platform;
    }
    return result;
}

// The same for another controller. Only what the filter has taken: nothing of it is new to a shell.
std::vector<std::string> words_of(const HistoryOptions &options)
{
    std::vector<std::string> words;
    const auto add = [&words](const char *name, const std::string &value) {
        if (!value.empty()) {
            words.insert(words.end(), {name, value});
        }
    };
    add("--group", options.group);
    add("--since", options.since);
    add("--until", options.until);
    add("--version", options.versions);
    return words;
}

Result show(const std::string &name)
{
    const Generation generation = find_generation(name);
    Result result;
    result.json = history_json(generation);
    result.json["path"] = path_of_generation(generation.sha256);
    result.text = history_lines(generation) + "file        " + path_of_generation(generation.sha256) + "\n";
    const std::string why = kept_because(generation);
    result.json["stays_because"] = why.empty() ? Json(nullptr) : Json(why);
    result.text += why.empty() ? "" : "It is never dropped: " + why + ".\n";
    return result;
}

Result drop(const HistoryOptions &options, const Globals &globals)
{
    require_writable();
    learn_own_number();
    const Generation generation = find_generation(options.generation);
    const std::string why = kept_because(generation);
    Plan plan;
    plan.verb = "history drop";
    plan.json = {{"sha256", generation.sha256}, {"number", generation.number}};
    plan.steps.push_back({"drop " + name_of(generation), {path_of_generation(generation.sha256)}, [generation] {
                              HeldLocalLock local("environment");
                              drop_generation(generation);
                              local.release();
                          }});
    if (!why.empty()) {
        throw Failure(Exit::no, "last-copy", name_of(generation) + " is not dropped: " + why + ".",
                      "Nothing was changed. Drop an older one, or save or accept another environment first.");
    }
    if (!globals.dry_run) {
        confirm("This drops " + name_of(generation) + " for good.", options.yes);
    }
    return carry_out(plan, globals);
}

void add_filters(const Command &command, HistoryOptions &options)
{
    command.add_option("--group", options.group, "Of this group only");
    command.add_option("--since", options.since, "Not older: 2026-11-21, 2026-11-21T20:49:00Z, or 90m, 12h, 7d ago")
        .option_text("TIME");
    command.add_option("--until", options.until, "Not newer").option_text("TIME");
    command.add_option("--version", options.versions, "Of this version, or of these: 3-9").option_text("N[-M]");
    command.add_flag("--oneline", options.oneline, "One line for each");
    command.add_flag("--all", options.all, "Of all controllers, in the order of time");
}

void add_drop(const Command &history, const std::shared_ptr<HistoryOptions> &options, Globals &globals, Action &action)
{
    const Command command =
        history.add_subcommand("drop", "Drop one; never the last whole copy of what is in force, or of a group");
    command.add_option("GENERATION", options->generation, "Its number, or the first 8 or more digits of its checksum")
        .required();
    command.add_flag("--yes", options->yes, "Don't ask");
    add_dry_run(command, globals);
    command.callback([&action, options] {
        action = [options](const Globals &given) {
            return drop(*options, given);
        };
    });
    add_examples(command,
                 "  kestactl history drop 3 --dry-run\n"
                 "  kestactl history drop 3f1c09aa27b4 --yes");
}

}  // namespace

Result show_history() { return list({}, true); }

void add_history(const Command &app, Globals &globals, Action &action)
{
    auto options = std::make_shared<HistoryOptions>();
    const Command command = app.add_subcommand("history", "List what was there before: every archive that was kept");
    add_filters(command, *options);
    Command inner = command.add_subcommand("show", "All that is known of one");
    inner.add_option("GENERATION", options->generation, "Its number, or the first 8 or more digits of its checksum")
        .required();
    inner.callback([&action, options] {
        action = [options](const Globals &) {
            return show(options->generation);
        };
    });
    add_examples(inner, "  kestactl history show 3");
    add_drop(command, options, globals, action);
    command.callback([&action, options] {
        if (!action) {  // one of its commands has been chosen before it
            action = [options](const Globals &) {
                const HistoryFilter filter = filter_of(*options);  // a mistake in it is told here
                return options->all ? history_of_all(words_of(*options), [&] { return list(filter, true); })
                                    : list(filter, options->oneline);
            };
        }
    });
    add_examples(command,
                 "  kestactl history --oneline\n"
                 "  kestactl history --all --since 7d\n"
                 "  kestactl history --group network --since 7d\n"
                 "  kestactl history show 3\n"
                 "  kestactl restore network --generation 3 --dry-run");
}

}  // namespace kestactl
