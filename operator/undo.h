// Back to what was before the last change of this controller: archives, files, slots in force, versions.
//
// Nothing is undone that something else has been built on: what the change left has to be there as it was left. What is
// there now is kept first, so an undo is a change like another one, and can be undone.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "change_log.h"
#include "file_changes.h"
#include "generations.h"
#include "restored_files.h"

namespace engine {

struct Undo {
    Change change;
    std::shared_ptr<KESTA_BACKUP_FILE> definition;  // none: it replaced no files
    std::unique_ptr<GroupPaths> paths;
    Archive archive;
    RestoredFiles files;
    FileChanges changes;
    ReplacedFiles kept;  // what undoing replaces

    bool has_archives() const { return !change.archives.empty(); }
    bool has_files() const { return static_cast<bool>(definition); }
    bool has_names() const { return !(change.before == change.after); }
};

// Throws Failure: there is nothing to undo, or it can't be undone, and why.
// What this system lacks of the files that come back is kept aside where they are to be staged next, as in a restore.
std::unique_ptr<Undo> prepare_undo(bool is_to_stage, const std::function<void()> &look);

// Brings each archive back to where it was, and keeps what is there now. Throws Failure.
void undo_archives(const Undo &undo, const KeepRule &rule, KeepReport &report);

// Put the files beside those that are there, keep those, and let them take their places. Throw Failure.
void stage_undo(Undo &undo, const KeepRule &rule, const std::function<void()> &look);
void place_undo(Undo &undo);

// The slots in force and the versions. Throws Failure.
void undo_names(const Undo &undo);

// Nothing is left to be done, after all of the others: until then another undo completes it. Throws Failure.
void finish_undo(const Undo &undo);

}  // namespace engine
