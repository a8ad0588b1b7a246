// kestactl save and accept: a whole environment saved, and made the accepted one, in one command each.
#include <kesta/kesta.h>

#include <memory>

#include "appliance_state.h"
#include "archive_places.h"
#include "command.h"
#include "current_change.h"
#include "environment_archive.h"
#include "environment_work.h"
#include "generations.h"
#include "group_definition.h"
#include "kept_generations.h"
#include "kesta/paths.h"
#include "names.h"
#include "saved_environment.h"
#include "unfinished_restore.h"
#include "version_numbers.h"
#include "whole_file.h"

namespace kestactl {
namespace {

struct SaveOptions {
    std::string group;
    WorkOptions work;
};

// ------------------------------------------------------------------------------------------- save

void add_mirror_step(Plan &plan, Work &work)
{
    if (mirror_lacks_items()) {
        plan.steps.push_back(publishing(work, "add what the system backup area lacks of the mirrored items",
                                        {"system backup area: the missing ones of its twelve items"}, complete_mirror));
    }
}

Plan plan_save(const SaveOptions &options, Work &work)
{
    require_writable();
    require_no_unfinished_restore();
    learn_own_number();
    const std::string slot = require_slot(backup_slot(), "backup");
    auto definition = std::shared_ptr<KESTA_BACKUP_FILE>(read_definition(options.group).release());
    const std::vector<std::string> files = collect(*definition);
    Plan plan;
    plan.long_work = true;
    plan.json = {{"group", options.group}, {"slot", slot}, {"files", files}};
    add_mirror_step(plan, work);
    const std::vector<Script> before = scripts_of(options.group, "backup", "pre-script");
    add_script_steps(plan, work, before, options.work.scripts);
    plan.kept = std::make_shared<KeepReport>();
    // After the scripts: they may have made the files.
    plan.steps.push_back(
        guarded(work, "archive " + std::to_string(files.size()) + " files, and test the archive", {unfinished_archive},
                [definition, &work, kept = plan.kept, changed = !before.empty()] {
                    if (changed) {
                        (void)collect(*definition);  // what it refuses is told before anything is written
                    }
                    with_room_on_flash(*kept, [&] {
                        make_archive(*definition, unfinished_archive, [&work] {
                            stop_if_asked(work);
                            tell_growth(unfinished_archive);
                        });
                    });
                }));
    add_keep_step(plan, work, {{flash_backup, Replacing::by_rename}, {place_of_slot(slot), Replacing::in_place}},
                  "save");
    plan.steps.push_back(publishing(work, "hand out the next version", {"version area numbering"},
                                    [&work] { work.version = hand_out_version(learn_own_number()); }));
    plan.steps.push_back(
        publishing(work, "put the archive to flash", {flash_backup}, [&options, &work, slot, kept = plan.kept] {
            note_what_is_saved(options.group, work.version, slot, work.keep_rule, *kept);
            publish_file(unfinished_archive, flash_backup);
        }));
    plan.steps.back().measured = unfinished_archive;
    plan.steps.push_back(publishing(work, "store it in slot " + slot + ", and read it back",
                                    {"system backup area: " + slot}, [slot] { store_in_slot(slot); }));
    plan.steps.back().measured = flash_backup;
    plan.steps.push_back(publishing(work, "record the version",
                                    {"version areas backup and current", KESTA_VERSION_FILE},
                                    [&work] { record_saved_version(work.version); }));
    announce_scripts(plan, work, scripts_of(options.group, "backup", "post-script"));
    return plan;
}

Result save(const SaveOptions &options, const Globals &globals)
{
    (void)read_definition(options.group);  // before any lock is taken
    Result result = carry_out_locked(
        {KESTA_LOCK_TYPE1, options.group, options.work.wait},
        [&options](Work &work) { return plan_save(options, work); },
        [&options](Work &work) {
            run_last(scripts_of(options.group, "backup", "post-script"), options.work.scripts, work);
        },
        globals);
    if (!globals.dry_run) {
        result.text += "Saved " + options.group + " as version " + result.json["version"].dump() + ".\n";
    }
    return result;
}

// ----------------------------------------------------------------------------------------- accept

Plan plan_accept(Work &work)
{
    require_writable();
    learn_own_number();
    const std::string slot = require_slot(accept_slot(), "accept");
    const std::string sum = require_acceptable([&work] { stop_if_asked(work); });
    Plan plan;
    plan.long_work = true;
    plan.json = {{"slot", slot}};
    add_keep_step(plan, work,
                  {{place_of_slot(slot), Replacing::in_place},
                   {flash_accept, Replacing::by_rename},
                   {merge_backup, Replacing::by_rename}},
                  "accept");
    plan.steps.push_back(guarded(work, "bring the saved environment to the merge cache", {merge_backup},
                                 [] { copy_file_whole(flash_backup, merge_backup); }));
    plan.steps.back().measured = flash_backup;
    plan.steps.push_back(publishing(work, "store it in slot " + slot + ", and read it back",
                                    {"system backup area: " + slot}, [slot] { store_as_accepted(slot); }));
    plan.steps.back().measured = merge_backup;
    plan.steps.push_back(publishing(work, "put it to flash as the accepted one", {flash_accept}, [kept = plan.kept] {
        with_room_on_flash(*kept, [] { copy_file_whole(merge_backup, flash_accept); });
    }));
    plan.steps.push_back(publishing(work, "record the version", {"version area accept"}, [&work, slot, sum] {
        work.version = record_accepted_version();
        for (const std::string &place : {place_of_slot(slot), std::string(flash_accept), std::string(merge_backup)}) {
            note_new_archive(place, sum);
        }
    }));
    return plan;
}

Result accept(const SaveOptions &options, const Globals &globals)
{
    Result result = carry_out_locked(
        {KESTA_LOCK_TYPE1, "", options.work.wait}, plan_accept, [](Work &) {}, globals);
    if (!globals.dry_run) {
        result.text += "Accepted version " + result.json["version"].dump() + ".\n";
    }
    return result;
}

}  // namespace

void add_save(const Command &app, Globals &globals, Action &action)
{
    auto options = std::make_shared<SaveOptions>();
    const Command command =
        app.add_subcommand("save", "Save a group's files: archive, version, flash copy and backup slot");
    command.add_option("GROUP", options->group, "Group name").required();
    add_wait_option(command, options->work);
    add_script_options(command, options->work);
    add_keep_options(command, globals);
    add_dry_run(command, globals);
    command.callback([&action, options] {
        action = [options](const Globals &given) {
            return save(*options, given);
        };
    });
    add_examples(command,
                 "  kestactl save network --dry-run\n"
                 "  kestactl save network --wait 60 --event nightly\n"
                 "  kestactl save network --comment 'before the new firmware'");
}

void add_accept(const Command &app, Globals &globals, Action &action)
{
    auto options = std::make_shared<SaveOptions>();
    const Command command = app.add_subcommand("accept", "Make the saved environment on flash the accepted one");
    add_wait_option(command, options->work);
    add_keep_options(command, globals);
    add_dry_run(command, globals);
    command.callback([&action, options] {
        action = [options](const Globals &given) {
            return accept(*options, given);
        };
    });
    add_examples(command,
                 "  kestactl accept --dry-run\n"
                 "  kestactl accept");
}

}  // namespace kestactl
