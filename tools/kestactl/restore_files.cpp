#include "restore_files.h"

#include <kesta/kesta.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <memory>

#include "appliance_state.h"
#include "archive_places.h"
#include "compared_sides.h"
#include "current_change.h"
#include "difference_rows.h"
#include "environment_archive.h"
#include "file_changes.h"
#include "file_properties.h"
#include "group_definition.h"
#include "history.h"
#include "kept_generations.h"
#include "kesta/paths.h"
#include "names.h"
#include "placed_files.h"
#include "replaced_files.h"
#include "storage_places.h"
#include "unfinished_restore.h"
#include "whole_file.h"

namespace kestactl {
namespace {

// The saved or the accepted environment, and where it lies.
struct Source {
    std::string side;  // "backup", "accept", or "generation:SHA256"
    std::string slot;
    const char *flash;  // null: it is a generation, and stays where it is
    int version_area;
    std::optional<Generation> generation = std::nullopt;

    std::string name() const { return generation ? name_of(*generation) : "the " + side; }
};

Source source_of(const std::string &from)
{
    const std::string backup = backup_slot();
    const std::string accept = accept_slot();
    Source saved{"backup", backup, flash_backup, KESTA_VER_AREA_BACKUP};
    Source accepted{"accept", accept, flash_accept, KESTA_VER_AREA_ACCEPT};
    if (from == "backup" || (is_slot(from) && from == backup)) {
        (void)require_slot(backup, "backup");
        return saved;
    }
    if (from == "accept" || (is_slot(from) && from == accept)) {
        (void)require_slot(accept, "accept");
        return accepted;
    }
    throw Failure(Exit::no, "slot-not-in-use", from + " is neither the backup nor the accept slot.",
                  "See 'kestactl slot show'; 'kestactl slot switch' names other ones.");
}

Source source_of_generation(const std::string &name)
{
    const Generation generation = find_generation(name);
    return {address_of(generation), "", nullptr, 0, generation};
}

ArchiveContents contents_of(const Source &source)
{
    if (!source.generation) {
        return read_slot(source.slot);
    }
    const std::string &sum = source.generation->sha256;
    return contents_known_as(contents_of_path(path_of_generation(sum)), sum, "The generation");
}

// What a run works on: it lives as long as the plan's steps.
struct Restore {
    RestoreFilesOptions options;
    Source source;
    std::shared_ptr<KESTA_BACKUP_FILE> definition;
    std::unique_ptr<GroupPaths> paths;
    Archive archive;
    RestoredFiles files;
    FileChanges changes;
    std::optional<ReplacedFiles> kept;  // for undo

    bool has_version() const { return !source.generation || source.generation->version > 0; }
};

UnfinishedRestore note_of(const Restore &restore)
{
    return {restore.options.group, restore.source.side, restore.options.only, restore.options.on_reboot,
            restore.changes.replaced};
}

// Another one has to be completed first, unless this one covers it.
void take_over_unfinished(const Restore &restore)
{
    const auto unfinished = unfinished_restore();
    if (!unfinished) {
        return;
    }
    const bool covered = unfinished->group == restore.options.group &&
                         (restore.options.only.empty() || restore.options.only == unfinished->only);
    if (!covered) {
        require_no_unfinished_restore();
    }
}

// What is replaced is kept for undo. Without that the restore goes on, and can't be undone.
void keep_for_undo(Restore &restore, const GroupPlaces &places, const Work &work, KeepReport &report)
{
    if (!work.keep_rule.keeps() || restore.changes.none()) {
        return;
    }
    try {
        restore.kept =
            keep_replaced_files(restore.options.group, restore.changes, places, [&work] { stop_if_asked(work); });
    } catch (const Failure &failure) {
        stop_if_asked(work);
        report.notes.push_back(std::string("This restore can't be undone: ") + failure.what());
    }
}

void put_slot_to_flash(const Restore &restore, const Work &work, KeepReport &report)
{
    const bool is_there = std::filesystem::exists(restore.source.flash);
    if (!is_there || !same_contents(contents_of_path(restore.source.flash), restore.archive.contents)) {
        report.add(keep_replaced({{restore.source.flash, Replacing::by_rename}}, "restore", work.keep_rule,
                                 [&work] { stop_if_asked(work); }));
        with_room_on_flash(report, [&] { write_file_whole(restore.source.flash, restore.archive.contents.pieces()); });
        note_new_archive(restore.source.flash, checksum_of(restore.archive.contents));
    }
}

void put_beside(Restore &restore, const Work &work, KeepReport &report)
{
    // After the scripts: they may have changed the files, and the way to them.
    const GroupPlaces places(*restore.paths);
    if (const auto unfinished = unfinished_restore()) {
        remove_staged(unfinished->replaced, places);
    }
    restore.changes = compare_files(restore.archive, restore.files, places);
    keep_for_undo(restore, places, work, report);
    note_unfinished(note_of(restore));
    try {
        stage_files(restore.archive, restore.files, restore.changes, places);
    } catch (const std::exception &) {
        note_finished();  // no file in use was changed
        throw;
    }
}

void put_in_place(Restore &restore)
{
    try {
        place_files(restore.files, restore.changes, GroupPlaces(*restore.paths));
    } catch (const Failure &met) {
        throw Failure(met.exit(), met.code(), std::string(met.what()) + " Some of the group's files are new, some old.",
                      "Mend it, then complete the restore: " + note_of(restore).command());
    }
}

// With --only, of the path itself.
void apply_definition(const Restore &restore)
{
    try {
        for (const KESTA_BACKUP_FILE_PATH &file : files_of(*restore.definition)) {
            if (restore.options.only.empty() || restore.options.only == file.pathname) {
                apply_properties(file, may_be_gone(*restore.definition));
            }
        }
    } catch (const Failure &met) {
        throw Failure(met.exit(), met.code(), met.what() + std::string(" The files are all new."),
                      "Mend it, then complete the restore: " + note_of(restore).command());
    }
}

// What the definition says of a reboot.
bool needs_reboot(const Restore &restore)
{
    bool changed = false;
    for (const KESTA_BACKUP_FILE_PATH &file : restore.definition->setfile) {
        changed = changed || (file.diffreboot != 0 &&
                              std::any_of(restore.changes.replaced.begin(), restore.changes.replaced.end(),
                                          [&file](const std::string &path) { return is_within(path, file.pathname); }));
    }
    const bool always = restore.definition->script.restore_reboot != 0 && restore.options.only.empty();
    return changed || always || restore.options.on_reboot;
}

void end_restore(const Restore &restore)
{
    if (restore.kept) {
        publish_replaced_files(*restore.kept);
    } else if (!restore.changes.none()) {
        note_replaced_archive({"the group's files", "", "", false});
    }
    note_finished();
}

int source_version(const Source &source)
{
    if (source.generation) {
        return source.generation->version;
    }

    const int version = kestal_read_version(source.version_area, learn_own_number(), KESTA_VERSION_BY_MODE);
    if (version < 0) {
        fail_call("version-failed", "The version of the " + source.side + " can't be read.",
                  "Look at --trace 1, then run the command again.");
    }
    return version;
}

void write_flash_version(int version, int kind)
{
    if (kestal_set_flash_version_file(version, kind) != KESTA_OK) {
        fail_call("version-failed", "The version was not written to flash.",
                  "Look at --trace 1, and at the space of /etc, then run the command again.");
    }
}

void record_versions(const Restore &restore, Work &work)
{
    work.version = source_version(restore.source);
    const int own = learn_own_number();
    set_version(KESTA_VER_AREA_CURRENT, own, work.version);
    write_flash_version(work.version, KESTA_FLASH_VERSION);
    if (restore.options.on_reboot) {
        set_version(KESTA_VER_AREA_REBOOT, own, work.version);
        write_flash_version(work.version, KESTA_FLASH_REBOOT);
    }
}

// ----------------------------------------------------------------------------------------- the plan

std::vector<std::string> places_of(const FileChanges &changes)
{
    std::vector<std::string> places(changes.replaced.begin(), changes.replaced.end());
    for (const std::string &path : changes.adjusted) {
        places.push_back(path + " (owner and mode only)");
    }
    for (const std::string &path : changes.removed) {
        places.push_back(path + " (removed: it was gone when the environment was saved)");
    }
    return places;
}

std::vector<std::string> version_places(const Restore &restore)
{
    std::vector<std::string> places{"version area current", KESTA_VERSION_FILE};
    if (restore.options.on_reboot) {
        places.insert(places.end(), {"version area reboot", KESTA_REBOOT_FILE});
    }
    return places;
}

std::vector<Script> scripts(const RestoreFilesOptions &options, const char *kind)
{
    return scripts_of(options.group, "restore", kind);
}

// The ones of the end: for a system that goes on, or for one that is rebooted.
const char *last_kind(const RestoreFilesOptions &options)
{
    return options.on_reboot ? "re-post-script" : "post-script";
}

std::shared_ptr<Restore> prepare(const RestoreFilesOptions &options, bool is_dry_run, Work &work)
{
    require_writable();
    learn_own_number();
    auto restore = std::make_shared<Restore>();
    restore->options = options;
    restore->options.only = without_needless_slashes(options.only);
    restore->source = options.generation.empty() ? source_of(options.from) : source_of_generation(options.generation);
    restore->definition = read_definition(options.group);
    take_over_unfinished(*restore);
    restore->paths = std::make_unique<GroupPaths>(*restore->definition, restore->options.only);
    const std::string called =
        restore->source.generation ? "The " + restore->source.name() : "Slot " + restore->source.slot;
    restore->archive = {contents_of(restore->source), called, archive_limits(), [&work] {
                            stop_if_asked(work);
                        }};
    KeptContents kept = is_dry_run ? KeptContents() : KeptContents(spool_on_flash(restore->archive.contents.size));
    restore->files = choose_files(restore->archive, *restore->definition, *restore->paths, std::move(kept));
    restore->changes = compare_files(restore->archive, restore->files, GroupPlaces(*restore->paths));
    return restore;
}

Plan plan_of(const std::shared_ptr<Restore> &restore, Work &work)
{
    const RestoreFilesOptions &options = restore->options;
    const bool whole = options.only.empty();
    Plan plan;
    plan.long_work = true;
    plan.json = {{"group", options.group}, {"from", restore->source.side}, {"slot", restore->source.slot}};
    plan.kept = std::make_shared<KeepReport>();
    add_script_steps(plan, work, scripts(options, "pre-script"), options.work.scripts);
    if (whole && restore->source.flash) {
        plan.steps.push_back(
            publishing(work, "bring slot " + restore->source.slot + " to flash", {restore->source.flash},
                       [restore, &work, kept = plan.kept] { put_slot_to_flash(*restore, work, *kept); }));
    }
    plan.steps.push_back(publishing(work, "put the new files beside the old ones",
                                    {unfinished_restore_note, "a hidden file beside each one"},
                                    [restore, &work, kept = plan.kept] { put_beside(*restore, work, *kept); }));
    plan.steps.push_back(publishing(work, "let them take their places", places_of(restore->changes),
                                    [restore] { put_in_place(*restore); }));
    plan.steps.push_back(publishing(work, "set links, owners, groups and modes of the definition",
                                    {"the group's files and links"}, [restore] { apply_definition(*restore); }));
    if (whole && restore->has_version()) {
        plan.steps.push_back(publishing(work, "record the version", version_places(*restore),
                                        [restore, &work] { record_versions(*restore, work); }));
    }
    plan.steps.push_back(
        publishing(work, "note that it is complete", {unfinished_restore_note}, [restore] { end_restore(*restore); }));
    announce_scripts(plan, work, scripts(options, last_kind(options)));
    return plan;
}

void describe_end(const Restore &restore, Result &result)
{
    const FileChanges &changes = restore.changes;
    const auto count = [](const std::set<std::string> &paths) {
        return std::to_string(paths.size());
    };
    const bool has_number = restore.options.only.empty() && restore.has_version();
    if (!has_number) {
        result.json["version"] = nullptr;
    }
    result.json["replaced"] = changes.replaced;
    result.json["adjusted"] = changes.adjusted;
    result.json["removed"] = changes.removed;
    result.json["foreign"] = restore.files.foreign;
    result.json["reboot_needed"] = needs_reboot(restore);
    result.text += "Restored " + restore.options.group + " from " + restore.source.name() + ", " +
                   (!restore.options.only.empty() ? restore.options.only + " only"
                    : has_number                  ? "version " + result.json["version"].dump()
                                                  : "of no known version") +
                   ": " + count(changes.replaced) + " replaced, " + count(changes.adjusted) +
                   " given their owner and mode, " + count(changes.removed) + " removed.\n";
    if (restore.files.foreign != 0) {
        result.text += std::to_string(restore.files.foreign) +
                       " members of the archive are not of this group: they were left alone.\n";
    }
    if (needs_reboot(restore)) {
        result.text += "Reboot this controller: the definition, or --on-reboot, asks for it.\n";
    }
}

// As kestactl diff tells it, from the files of now to those of the archive; with --only, of that path alone.
void describe_difference(const Restore &restore, Result &result)
{
    // The work is over, and with it what stops it when a signal comes: one ends the command at once now.
    const Archive archive{restore.archive.contents, restore.archive.name, restore.archive.limits};
    std::vector<FileDifference> found = differences({live_side}, {restore.source.name(), archive}, *restore.definition);
    // What is here and not in the archive stays, unless a path of the group was gone as a whole.
    std::erase_if(found, [&restore](const FileDifference &one) {
        return !restore.paths->wants(one.path.substr(1)) ||
               (one.what.front() == "removed" && !restore.changes.removed.contains(one.path));
    });
    result.json["differences"] = to_json(found);
    result.text += found.empty() ? "The files are the same already.\n"
                                 : "From the files of now to " + restore.source.name() + ":\n" + text_of(found);
}

}  // namespace

Result restore_files(const RestoreFilesOptions &options, const Globals &globals)
{
    (void)read_definition(options.group);  // before any lock is taken
    std::shared_ptr<Restore> restore;
    Result result = carry_out_locked(
        {KESTA_LOCK_TYPE1, options.group, options.work.wait},
        [&](Work &work) {
            restore = prepare(options, globals.dry_run, work);
            return plan_of(restore, work);
        },
        [&](Work &work) { run_last(scripts(options, last_kind(options)), options.work.scripts, work); }, globals);
    if (globals.dry_run) {
        describe_difference(*restore, result);
    } else {
        describe_end(*restore, result);
    }
    return result;
}

}  // namespace kestactl
