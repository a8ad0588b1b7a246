#include "undo.h"

#include <fcntl.h>
#include <kesta/kesta.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <set>

#include "appliance_state.h"
#include "archive_copy.h"
#include "archive_places.h"
#include "current_change.h"
#include "group_definition.h"
#include "placed_files.h"
#include "replaced_files.h"
#include "storage_places.h"
#include "undoable_change.h"
#include "unfinished_restore.h"
#include "whole_file.h"

namespace engine {
namespace {

constexpr const char *undo_verb = "undo";

// The files that it made go, and those that it replaced come back.
void choose_undone_files(Undo &undo, bool is_to_stage, const std::function<void()> &look)
{
    const ReplacedFiles &files = *undo.change.files;
    undo.definition = read_definition(files.group);
    undo.paths = std::make_unique<GroupPaths>(*undo.definition);
    const std::string name = "The archive of the replaced files";
    undo.archive = {contents_known_as(contents_of_path(replaced_files_archive()), files.sha256, name), name,
                    archive_limits(), look};
    if (files.replaced.empty()) {
        require_whole(evidence_of(undo.archive.contents), name);
    } else {
        const auto some = std::make_unique<KESTA_BACKUP_FILE>(*undo.definition);  // not all of its paths are in it
        static_assert(sizeof(some->operation) > sizeof("addremove"));
        strcpy(some->operation, "addremove");
        KeptContents kept = is_to_stage ? KeptContents(spool_on_flash(undo.archive.contents.size)) : KeptContents();
        undo.files = choose_files(undo.archive, *some, *undo.paths, std::move(kept));
    }
    undo.files.removed.clear();
    for (const std::string &made : files.made) {
        struct stat status {};
        const Entry entry = GroupPlaces(*undo.paths).entry(made.substr(1));
        if (entry && stat_of(entry, status) && !S_ISDIR(status.st_mode)) {
            undo.files.removed.push_back(made);
        }
    }
}

void set_area(int area, int before, int after)
{
    if (before == after) {
        return;
    }
    ask_both_places();
    if (kestal_set_version(area, learn_own_number(), before) != KESTA_OK) {
        fail_call("version-failed", "The versions were not set back in every place.",
                  "The archives are whole. Look at --trace 1, and let 'kestactl verify' tell what differs.");
    }
}

void set_slots(const NamesInForce &names)
{
    std::array<char, KESTA_AREA_NAME_SIZE> accept{};
    std::array<char, KESTA_AREA_NAME_SIZE> backup{};
    names.accept.copy(accept.data(), accept.size() - 1);
    names.backup.copy(backup.data(), backup.size() - 1);
    learn_own_number();
    for (const int flag : {KESTA_OFF, KESTA_ON}) {
        ask_both_places();
        if (kestal_change_address(accept.data(), backup.data(), flag) != KESTA_OK) {
            fail_call("switch-failed", "The slots could not be named as before in every place.",
                      "Run 'kestactl slot switch --backup " + names.backup + " --accept " + names.accept + "'.");
        }
    }
}

void undo_cache(const ReplacedArchive &archive, const KeepRule &rule, KeepReport &report)
{
    report.add(keep_replaced({{archive.place, Replacing::in_place}}, undo_verb, rule));
    const ArchiveContents old =
        contents_known_as(contents_of_path(path_of_generation(archive.before)), archive.before, "The generation");
    write_file_whole(archive.place, old.pieces());
    note_new_archive(archive.place, archive.before);
}

std::string address_of_place(const std::string &place)
{
    return place == flash_backup   ? address_of(StoragePlace::backup_on_flash)
           : place == flash_accept ? address_of(StoragePlace::accept_on_flash)
                                   : place;
}

}  // namespace

std::unique_ptr<Undo> prepare_undo(bool is_to_stage, const std::function<void()> &look)
{
    auto undo = std::make_unique<Undo>();
    undo->change = undoable_change();
    if (undo->change.files) {
        choose_undone_files(*undo, is_to_stage, look);
        undo->changes = compare_files(undo->archive, undo->files, GroupPlaces(*undo->paths));
    }
    return undo;
}

void undo_archives(const Undo &undo, const KeepRule &rule, KeepReport &report)
{
    for (const ReplacedArchive &archive : undo.change.archives) {
        const std::string address = address_of_place(archive.place);
        if (slot_of_place(address) || address != archive.place) {
            report.add(copy_archive({"generation:" + archive.before, address, archive.before}, undo_verb, rule));
        } else {
            undo_cache(archive, rule, report);
        }
    }
}

void stage_undo(Undo &undo, const KeepRule &rule, const std::function<void()> &look)
{
    const GroupPlaces places(*undo.paths);
    if (const auto unfinished = unfinished_restore()) {
        remove_staged(unfinished->replaced, places);
    }
    undo.changes = compare_files(undo.archive, undo.files, places);
    if (rule.keeps()) {
        undo.kept = keep_replaced_files(undo.change.files->group, undo.changes, places, look);
    }
    note_unfinished({undo.change.files->group, from_undo, "", false, undo.changes.replaced});
    try {
        stage_files(undo.archive, undo.files, undo.changes, places);
    } catch (const std::exception &) {
        note_finished();  // no file in use was changed
        throw;
    }
}

void place_undo(Undo &undo)
{
    const GroupPlaces places(*undo.paths);
    place_files(undo.files, undo.changes, places);
    const std::vector<std::string> &made = undo.change.files->made;
    const std::set<std::string> folders(made.begin(), made.end());
    for (auto folder = folders.rbegin(); folder != folders.rend(); ++folder) {  // what is in one goes before it
        const Entry entry = places.entry(folder->substr(1));
        if (entry) {
            (void)unlinkat(entry.folder.get(), entry.name.c_str(), AT_REMOVEDIR);  // what is not empty stays
        }
    }
}

// What this undo has replaced takes the place of what it brought back when nothing asks for that any more.
void finish_undo(const Undo &undo)
{
    if (undo.has_files()) {
        note_finished();
    }
    if (!undo.kept.group.empty()) {
        publish_replaced_files(undo.kept);
    }
}

void undo_names(const Undo &undo)
{
    const NamesInForce &before = undo.change.before;
    const NamesInForce &after = undo.change.after;
    if (before.backup != after.backup || before.accept != after.accept) {
        set_slots(before);
    }
    set_area(KESTA_VER_AREA_BACKUP, before.backup_version, after.backup_version);
    set_area(KESTA_VER_AREA_ACCEPT, before.accept_version, after.accept_version);
    set_area(KESTA_VER_AREA_CURRENT, before.current_version, after.current_version);
    if (before.flash_version != after.flash_version &&
        kestal_set_flash_version_file(before.flash_version, KESTA_FLASH_VERSION) != KESTA_OK) {
        fail_call("version-failed", "The version was not written to flash.",
                  "Look at --trace 1, and at the space of /etc; 'kestactl verify' tells what differs.");
    }
}

}  // namespace engine
