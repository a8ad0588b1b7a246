// kestactl save and accept: a whole environment saved, and made the accepted one, in one command each.
#include <kesta/kesta.h>
#include <string.h>

#include <algorithm>
#include <memory>

#include "appliance_state.h"
#include "archive_evidence.h"
#include "archive_places.h"
#include "command.h"
#include "current_change.h"
#include "environment_archive.h"
#include "environment_work.h"
#include "generations.h"
#include "group_definition.h"
#include "kept_generations.h"
#include "kesta/paths.h"
#include "mirror.h"
#include "names.h"
#include "unfinished_restore.h"
#include "version_numbers.h"
#include "whole_file.h"

namespace kestactl {
namespace {

struct SaveOptions {
    std::string group;
    WorkOptions work;
};

void require_same(const std::string &slot, const std::string &path)
{
    if (!same_contents(read_slot(slot), contents_of_path(path))) {
        throw Failure(Exit::platform, "slot-differs", "Slot " + slot + " does not hold what was written to it.",
                      "Check the disk of the system backup area, then run the command again.");
    }
}

// ------------------------------------------------------------------------------------------- save

void record_versions(int version)
{
    const int own = learn_own_number();
    set_version(KESTA_VER_AREA_BACKUP, own, version);
    set_version(KESTA_VER_AREA_CURRENT, own, version);
    if (kestal_set_flash_version_file(version, KESTA_FLASH_VERSION) != KESTA_OK) {
        fail_call("version-failed", "The version was not written to flash.",
                  "Look at --trace 1, and at the space of /etc, then run the command again.");
    }
}

void store_in_slot(const std::string &slot)
{
    if (kestal_cntbackup2backup() != KESTA_OK) {
        fail_call("slot-failed", "The archive was not stored in slot " + slot + ".",
                  "It is on flash. Look at --trace 1 and at the system backup area, then run the "
                  "command again.");
    }
    require_same(slot, flash_backup);
}

// The library goes on without the system backup area where it misses an item there, and the new versions
// would be kept in NV memory only.
void complete_mirror()
{
    std::string failed;
    if (add_missing_items(read_mirror(), failed) != KESTA_OK) {
        fail_call("mirror-failed", "The item " + failed + " could not be added to the system backup area.",
                  "Check its disk: look at --trace 1 and at 'kestactl nv verify'.");
    }
}

// The slots must be the same in both places. Versions need not: they are written anew, and a command that
// was cut short may have written one of them to one place only.
void add_mirror_step(Plan &plan, Work &work)
{
    const MirrorState mirror = read_mirror();
    const bool same_slots = !mirror.items[0].differs() && !mirror.items[1].differs();
    if (!mirror.valid(Side::memory) || !same_slots) {
        throw Failure(Exit::no, "places-differ", "NV memory and the system backup area do not name the same slots.",
                      "Nothing was changed. Look at 'kestactl nv verify', and mend it with 'kestactl "
                      "repair'.");
    }
    const bool lacks =
        std::any_of(mirror.items.begin(), mirror.items.end(), [](const MirroredItem &item) { return !item.disk; });
    if (lacks) {
        plan.steps.push_back(publishing(work, "add what the system backup area lacks of the mirrored items",
                                        {"system backup area: the missing ones of its twelve items"}, complete_mirror));
    }
}

// Known from here on: when it is replaced one day, it is kept with its version and group. Nothing is lost without that.
void note_what_is_saved(const SaveOptions &options, const Work &work, const std::string &slot, KeepReport &report)
{
    try {
        const std::string sum = note_saved(unfinished_archive, options.group, work.version, work.keep_rule);
        note_new_archive(flash_backup, sum);
        note_new_archive(place_of_slot(slot), sum);
    } catch (const Failure &failure) {
        report.notes.push_back(std::string("The archive was not noted among the generations: ") + failure.what());
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
            note_what_is_saved(options, work, slot, *kept);
            publish_file(unfinished_archive, flash_backup);
        }));
    plan.steps.back().measured = unfinished_archive;
    plan.steps.push_back(publishing(work, "store it in slot " + slot + ", and read it back",
                                    {"system backup area: " + slot}, [slot] { store_in_slot(slot); }));
    plan.steps.back().measured = flash_backup;
    plan.steps.push_back(publishing(work, "record the version",
                                    {"version areas backup and current", KESTA_VERSION_FILE},
                                    [&work] { record_versions(work.version); }));
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

// Returns its checksum.
std::string require_whole_archive(const std::string &path, const Work &work)
{
    require_file(path, "Save the environment first: kestactl save GROUP.");
    const ArchiveEvidence evidence = evidence_of_file(path, [&work] { stop_if_asked(work); });
    if (evidence.state == CopyState::damaged) {
        throw Failure(Exit::no, "damaged-archive", path + " is damaged, and is not accepted: " + evidence.reason + ".",
                      "Save the environment again, or bring a good copy to flash with 'kestactl "
                      "restore GROUP --switch-only'.");
    }
    require_whole(evidence, path);
    return evidence.sha256;
}

void store_as_accepted(const std::string &slot)
{
    std::array<char, KESTA_AREA_NAME_SIZE> name{};
    slot.copy(name.data(), name.size() - 1);
    if (kestal_merge_file2accept(name.data()) != KESTA_OK) {
        fail_call("slot-failed", "The archive was not stored in slot " + slot + ".",
                  "The accepted environment on flash is as it was. Look at --trace 1, then run the "
                  "command again.");
    }
    require_same(slot, merge_backup);
}

void accept_version(Work &work)
{
    const int own = learn_own_number();
    work.version = kestal_read_version(KESTA_VER_AREA_BACKUP, own, KESTA_VERSION_BY_MODE);
    if (work.version < 0) {
        fail_call("version-failed", "The backup's version can't be read.", "Look at --trace 1.");
    }
    set_version(KESTA_VER_AREA_ACCEPT, own, work.version);
}

Plan plan_accept(Work &work)
{
    require_writable();
    learn_own_number();
    const std::string slot = require_slot(accept_slot(), "accept");
    const std::string sum = require_whole_archive(flash_backup, work);
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
        accept_version(work);
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
