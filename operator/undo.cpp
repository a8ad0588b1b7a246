#include "undo.h"

#include <fcntl.h>
#include <kesta/kesta.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>

#include "appliance_state.h"
#include "archive_copy.h"
#include "archive_places.h"
#include "current_change.h"
#include "group_definition.h"
#include "placed_files.h"
#include "replaced_files.h"
#include "storage_places.h"
#include "unfinished_restore.h"
#include "whole_file.h"

namespace engine {
namespace {

constexpr const char *undo_verb = "undo";
constexpr const char *slot_prefix = "slot:";

[[noreturn]] void refuse(const std::string &code, const std::string &why, const std::string &hint)
{
    throw Failure(Exit::no, code, why, "Nothing was changed. " + hint);
}

std::string called(const Change &change)
{
    return "The last change of this controller, '" + change.verb + (change.group.empty() ? "" : " " + change.group) +
           "',";
}

Change last_change()
{
    std::vector<Change> all = changes();
    std::erase_if(all, [](const Change &change) { return change.changed_nothing; });
    if (all.empty()) {
        refuse("nothing-to-undo", "No change of this controller is known.", "See 'kestactl history' for what is kept.");
    }
    return all.back();
}

void require_undoable(const Change &change)
{
    const std::string hint =
        "See 'kestactl history' for what is kept: 'kestactl restore GROUP --generation N' and 'kestactl copy archive' "
        "bring it back.";
    if (change.result != "done") {
        refuse("not-undoable", called(change) + " did not end well (" + change.result + "): what it left is not known.",
               "Let 'kestactl verify' tell what is left. " + hint);
    }
    if (!change.can_be_undone) {
        refuse("not-undoable", called(change) + " can't be undone: not all that it replaced was kept.", hint);
    }
    for (const ReplacedArchive &archive : change.archives) {
        if (archive.before.empty()) {
            refuse("not-undoable", called(change) + " can't be undone: " + archive.place + " held nothing before.",
                   hint);
        }
    }
}

std::string held_by(const std::string &place)
{
    if (place.starts_with(slot_prefix)) {
        return evidence_of_slot(place.substr(strlen(slot_prefix))).sha256;
    }
    return evidence_of_file(place).sha256;
}

// An undo that was cut short has set some of them back already.
bool are_left_by(const Change &change, const NamesInForce &names)
{
    const auto unfinished = unfinished_restore();
    if (!unfinished || unfinished->from != from_undo) {
        return names == change.after;
    }
    const auto is_either = [&](auto field) {
        return names.*field == change.before.*field || names.*field == change.after.*field;
    };
    return is_either(&NamesInForce::backup) && is_either(&NamesInForce::accept) &&
           is_either(&NamesInForce::backup_version) && is_either(&NamesInForce::accept_version) &&
           is_either(&NamesInForce::current_version) && is_either(&NamesInForce::flash_version);
}

bool has_other_contents(const ReplacedFiles &files)
{
    const std::string path = replaced_files_archive();
    return !files.sha256.empty() &&
           (access(path.c_str(), F_OK) != 0 || checksum_of(contents_of_path(path)) != files.sha256);
}

// What others have built on it would be lost.
void require_as_it_was_left(const Change &change)
{
    const std::string hint =
        "What is there now is newer than the change: bring back what you need from 'kestactl history'.";
    if (!are_left_by(change, names_in_force())) {
        refuse("changed-since", called(change) + " can't be undone: slots or versions have been changed since.", hint);
    }
    if (change.files && has_other_contents(*change.files)) {
        refuse("changed-since",
               called(change) + " can't be undone: the archive of the files that it replaced has been changed since.",
               hint);
    }
    for (const ReplacedArchive &archive : change.archives) {
        if (held_by(archive.place) != archive.after) {
            refuse("changed-since", called(change) + " can't be undone: " + archive.place + " has been changed since.",
                   hint);
        }
        require_whole(evidence_of_file(path_of_generation(archive.before)),
                      "The generation that " + archive.place + " held before");
    }
}

void require_no_other_restore(const Change &change)
{
    const auto unfinished = unfinished_restore();
    if (unfinished && !(unfinished->from == from_undo && change.files && unfinished->group == change.files->group)) {
        require_no_unfinished_restore();
    }
}

// The files that it made go, and those that it replaced come back.
void choose_undone_files(Undo &undo, const std::function<void()> &look)
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
        undo.files = choose_files(undo.archive, *some, *undo.paths);
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

std::unique_ptr<Undo> prepare_undo(const std::function<void()> &look)
{
    auto undo = std::make_unique<Undo>();
    undo->change = last_change();
    require_undoable(undo->change);
    require_no_other_restore(undo->change);
    require_as_it_was_left(undo->change);
    if (undo->change.files) {
        choose_undone_files(*undo, look);
        undo->changes = compare_files(undo->archive, undo->files, GroupPlaces(*undo->paths));
    }
    return undo;
}

void undo_archives(const Undo &undo, const KeepRule &rule, KeepReport &report)
{
    for (const ReplacedArchive &archive : undo.change.archives) {
        const std::string address = address_of_place(archive.place);
        if (address.starts_with(slot_prefix) || address != archive.place) {
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
    std::vector<std::string> folders = undo.change.files->made;
    std::sort(folders.rbegin(), folders.rend());  // what is in a folder goes before it
    for (const std::string &folder : folders) {
        const Entry entry = places.entry(folder.substr(1));
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
