// A group's files put back by its definition: what a restore works on, and each of its steps.
//
// Who carries out the steps holds the command lock, and runs the definition's scripts before and behind them. A restore
// that ends between them is completed by the same one once more: it is noted until its last step.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "file_changes.h"
#include "generations.h"
#include "group_paths.h"
#include "replaced_files.h"
#include "restore_source.h"
#include "restored_files.h"

namespace engine {

// What is asked for.
struct RestoreRequest {
    std::string group;
    std::string from = "backup";  // "backup", "accept", or the name of the slot that is one of them
    std::string generation{};     // of the history, instead of 'from'
    std::string only{};           // a path of the group, or one below; empty: all
    bool on_reboot = false;       // the files come into force with the next reboot
};

struct Restore {
    RestoreRequest request;
    RestoreSource source;
    std::shared_ptr<KESTA_BACKUP_FILE> definition;
    std::unique_ptr<GroupPaths> paths;
    Archive archive;
    RestoredFiles files;
    FileChanges changes;
    std::optional<ReplacedFiles> kept;  // for undo

    bool has_version() const { return !source.generation || source.generation->version > 0; }
};

// Chooses what comes back, and compares it with what is there. Looks again and again, here and below, which may throw.
// What this system lacks is kept aside where it is to be staged next. Throws Failure: nothing was changed.
std::shared_ptr<Restore> prepare_restore(const RestoreRequest &request, bool is_to_stage,
                                         const std::function<void()> &look);

// Brings the slot to flash, if flash differs; keeps what is there. Throws Failure.
void put_slot_to_flash(const Restore &restore, const KeepRule &rule, KeepReport &report,
                       const std::function<void()> &look);

// Put the files beside those that are there, keep those for undo, and let them take their places. Throw Failure.
void put_beside(Restore &restore, const KeepRule &rule, KeepReport &report, const std::function<void()> &look);
void put_in_place(Restore &restore);

// Links, owners, groups and modes as the definition says; with a path alone, its own. Throws Failure.
void apply_definition(const Restore &restore);

// Of the whole group: the source's version is the one in force. Returns it. Throws Failure.
int record_versions(const Restore &restore);

// Nothing is left to be done, after all of the others. Throws Failure.
void end_restore(const Restore &restore);

// What the definition, or who asked, says of a reboot.
bool needs_reboot(const Restore &restore);

}  // namespace engine
