#include "restore.h"

#include <kesta/kesta.h>

#include <algorithm>
#include <utility>

#include "appliance_state.h"
#include "archive_places.h"
#include "current_change.h"
#include "environment_archive.h"
#include "file_properties.h"
#include "group_definition.h"
#include "history.h"
#include "kesta/paths.h"
#include "names.h"
#include "placed_files.h"
#include "storage_places.h"
#include "unfinished_restore.h"
#include "version_numbers.h"
#include "whole_file.h"

namespace engine {
namespace {

UnfinishedRestore note_of(const Restore &restore)
{
    return {restore.request.group, restore.source.side, restore.request.only, restore.request.on_reboot,
            restore.changes.replaced};
}

// Another one has to be completed first, unless this one covers it.
void take_over_unfinished(const Restore &restore)
{
    const auto unfinished = unfinished_restore();
    if (!unfinished) {
        return;
    }
    const bool covered = unfinished->group == restore.request.group &&
                         (restore.request.only.empty() || restore.request.only == unfinished->only);
    if (!covered) {
        require_no_unfinished_restore();
    }
}

// What is replaced is kept for undo. Without that the restore goes on, and can't be undone.
void keep_for_undo(Restore &restore, const GroupPlaces &places, const KeepRule &rule, KeepReport &report,
                   const std::function<void()> &look)
{
    if (!rule.keeps() || restore.changes.none()) {
        return;
    }
    try {
        restore.kept = keep_replaced_files(restore.request.group, restore.changes, places, look);
    } catch (const Failure &failure) {
        look();  // it was not this that threw
        report.notes.push_back(std::string("This restore can't be undone: ") + failure.what());
    }
}

}  // namespace

std::shared_ptr<Restore> prepare_restore(const RestoreRequest &request, bool is_to_stage,
                                         const std::function<void()> &look)
{
    require_writable();
    learn_own_number();
    auto restore = std::make_shared<Restore>();
    restore->request = request;
    restore->request.only = without_needless_slashes(request.only);
    restore->source =
        request.generation.empty() ? named_source(request.from) : source_of_generation(request.generation);
    restore->definition = read_definition(request.group);
    take_over_unfinished(*restore);
    restore->paths = std::make_unique<GroupPaths>(*restore->definition, restore->request.only);
    const std::string called =
        restore->source.generation ? "The " + restore->source.name() : "Slot " + restore->source.slot;
    restore->archive = {contents_of(restore->source), called, archive_limits(), look};
    KeptContents kept = is_to_stage ? KeptContents(spool_on_flash(restore->archive.contents.size)) : KeptContents();
    restore->files = choose_files(restore->archive, *restore->definition, *restore->paths, std::move(kept));
    restore->changes = compare_files(restore->archive, restore->files, GroupPlaces(*restore->paths));
    return restore;
}

void put_slot_to_flash(const Restore &restore, const KeepRule &rule, KeepReport &report,
                       const std::function<void()> &look)
{
    if (is_absent(restore.source.flash) ||
        !same_contents(contents_of_path(restore.source.flash), restore.archive.contents)) {
        report.add(keep_replaced({{restore.source.flash, Replacing::by_rename}}, "restore", rule, look));
        with_room_on_flash(report, [&] { write_file_whole(restore.source.flash, restore.archive.contents.pieces()); });
        note_new_archive(restore.source.flash, checksum_of(restore.archive.contents));
    }
}

void put_beside(Restore &restore, const KeepRule &rule, KeepReport &report, const std::function<void()> &look)
{
    // After the scripts: they may have changed the files, and the way to them.
    const GroupPlaces places(*restore.paths);
    if (const auto unfinished = unfinished_restore()) {
        remove_staged(unfinished->replaced, places);
    }
    restore.changes = compare_files(restore.archive, restore.files, places);
    keep_for_undo(restore, places, rule, report, look);
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
            if (restore.request.only.empty() || restore.request.only == file.pathname) {
                apply_properties(file, may_be_gone(*restore.definition));
            }
        }
    } catch (const Failure &met) {
        throw Failure(met.exit(), met.code(), met.what() + std::string(" The files are all new."),
                      "Mend it, then complete the restore: " + note_of(restore).command());
    }
}

bool needs_reboot(const Restore &restore)
{
    bool changed = false;
    for (const KESTA_BACKUP_FILE_PATH &file : restore.definition->setfile) {
        changed = changed || (file.diffreboot != 0 &&
                              std::any_of(restore.changes.replaced.begin(), restore.changes.replaced.end(),
                                          [&file](const std::string &path) { return is_within(path, file.pathname); }));
    }
    const bool always = restore.definition->script.restore_reboot != 0 && restore.request.only.empty();
    return changed || always || restore.request.on_reboot;
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

int record_versions(const Restore &restore)
{
    const int version = version_of(restore.source);
    set_version(KESTA_VER_AREA_CURRENT, version);
    set_flash_version(KESTA_FLASH_VERSION, version);
    if (restore.request.on_reboot) {
        set_version(KESTA_VER_AREA_REBOOT, version);
        set_flash_version(KESTA_FLASH_REBOOT, version);
    }
    return version;
}

}  // namespace engine
