#include "undoable_change.h"

#include <unistd.h>

#include <algorithm>

#include "archive_evidence.h"
#include "generations.h"
#include "replaced_files.h"
#include "storage_places.h"
#include "unfinished_restore.h"

namespace engine {
namespace {

[[noreturn]] void refuse(std::string_view code, std::string_view why, std::string_view hint)
{
    throw Failure(Exit::no, code, why, std::string("Nothing was changed. ").append(hint));
}

std::string called(const Change &change)
{
    return "The last change of this controller, '" + change.verb + (change.group.empty() ? "" : " " + change.group) +
           "',";
}

Change last_change()
{
    const std::vector<Change> all = changes();
    const auto last = std::find_if(all.rbegin(), all.rend(), [](const Change &one) { return !one.changed_nothing; });
    if (last == all.rend()) {
        refuse("nothing-to-undo", "No change of this controller is known.", "See 'kestactl history' for what is kept.");
    }
    return *last;
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
    const auto slot = slot_of_place(place);
    return (slot ? evidence_of_slot(*slot) : evidence_of_file(place)).sha256;
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

}  // namespace

Change undoable_change()
{
    Change change = last_change();
    require_undoable(change);
    require_no_other_restore(change);
    require_as_it_was_left(change);
    return change;
}

}  // namespace engine
