// kestactl undo: back to what was before the last change of this controller.
#include <kesta/kesta.h>

#include <memory>

#include "appliance_state.h"
#include "command.h"
#include "environment_work.h"
#include "kept_generations.h"
#include "kesta/paths.h"
#include "undo.h"
#include "undoable_change.h"
#include "utc.h"

namespace kestactl {
namespace {

struct UndoOptions {
    WorkOptions work;
    bool yes = false;
};

std::string called(const Change &change)
{
    return "'" + change.verb + (change.group.empty() ? "" : " " + change.group) + "' of " + utc(change.time) + " by " +
           change.user;
}

std::vector<std::string> places_of(const Undo &undo)
{
    std::vector<std::string> places;
    for (const ReplacedArchive &archive : undo.change.archives) {
        places.push_back(archive.place);
    }
    return places;
}

std::vector<std::string> files_of(const Undo &undo)
{
    std::vector<std::string> files(undo.changes.replaced.begin(), undo.changes.replaced.end());
    files.insert(files.end(), undo.changes.adjusted.begin(), undo.changes.adjusted.end());
    for (const std::string &path : undo.changes.removed) {
        files.push_back(path + " (removed: it was not there before)");
    }
    return files;
}

Plan plan_undo(const std::shared_ptr<Undo> &undo, Work &work)
{
    Plan plan;
    plan.long_work = true;
    plan.json = {{"undone", undo->change.verb}, {"group", undo->change.group}, {"of", utc(undo->change.time)}};
    plan.kept = std::make_shared<KeepReport>();
    if (undo->has_files()) {
        plan.steps.push_back(
            publishing(work, "put the old files beside the new ones, and keep those", {"a hidden file beside each one"},
                       [undo, &work] { stage_undo(*undo, work.keep_rule, [&work] { stop_if_asked(work); }); }));
        plan.steps.push_back(
            publishing(work, "let them take their places", files_of(*undo), [undo] { place_undo(*undo); }));
    }
    if (undo->has_archives()) {
        plan.steps.push_back(
            publishing(work, "bring the archives back that were there before, and keep those of now", places_of(*undo),
                       [undo, &work, kept = plan.kept] { undo_archives(*undo, work.keep_rule, *kept); }));
    }
    if (undo->has_names()) {
        plan.steps.push_back(
            publishing(work, "set slots and versions back",
                       {"NV memory, system backup area and " KESTA_GROUP_DIRECTORY ": slots and versions"},
                       [undo] { undo_names(*undo); }));
    }
    if (!plan.steps.empty()) {
        plan.steps.back().act = [undo, act = plan.steps.back().act] {
            act();
            finish_undo(*undo);
        };
    }
    return plan;
}

Result undo(const UndoOptions &options, const Globals &globals)
{
    require_writable();
    learn_own_number();
    const Change asked_for = undoable_change();  // refused before any lock is taken
    if (!globals.dry_run) {
        confirm("This undoes " + called(asked_for) + ".", options.yes);
    }
    std::shared_ptr<Undo> undone;
    Result result = carry_out_locked(
        {KESTA_LOCK_TYPE1, asked_for.group, options.work.wait},
        [&](Work &work) {
            undone = prepare_undo(!globals.dry_run, [&work] { stop_if_asked(work); });
            if (undone->change.id != asked_for.id) {
                throw Failure(Exit::no, "changed-meanwhile", "Another change was made meanwhile.",
                              "Nothing was changed. Run the command again to see which one it is.");
            }
            return plan_undo(undone, work);
        },
        [](Work &) {}, globals);
    if (!globals.dry_run) {
        result.json["version"] = undone->change.before.current_version;
        result.text += "Undone: " + called(undone->change) + ".\n";
    }
    return result;
}

}  // namespace

void add_undo(const Command &app, Globals &globals, Action &action)
{
    auto options = std::make_shared<UndoOptions>();
    const Command command =
        app.add_subcommand("undo",
                           "Back to what was before the last change of this controller, where that is possible");
    command.add_flag("--yes", options->yes, "Don't ask");
    add_wait_option(command, options->work);
    add_keep_options(command, globals);
    add_dry_run(command, globals);
    command.callback([&action, options] {
        action = [options](const Globals &given) {
            return undo(*options, given);
        };
    });
    add_examples(command,
                 "  kestactl undo --dry-run\n"
                 "  kestactl undo --reason 'the new settings did not work'");
}

}  // namespace kestactl
