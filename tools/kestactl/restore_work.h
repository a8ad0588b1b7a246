// What kestactl restore works on, and each of its steps.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "environment_work.h"
#include "file_changes.h"
#include "group_paths.h"
#include "replaced_files.h"
#include "restore_options.h"
#include "restore_source.h"
#include "restored_files.h"

namespace kestactl {

// What a run works on: it lives as long as the plan's steps.
struct Restore {
    RestoreFilesOptions options;
    RestoreSource source;
    std::shared_ptr<KESTA_BACKUP_FILE> definition;
    std::unique_ptr<GroupPaths> paths;
    Archive archive;
    RestoredFiles files;
    FileChanges changes;
    std::optional<ReplacedFiles> kept;  // for undo

    bool has_version() const { return !source.generation || source.generation->version > 0; }
};

// Chooses what comes back, and compares it with what is there. Throws Failure: nothing was changed.
std::shared_ptr<Restore> prepare_restore(const RestoreFilesOptions &options, bool is_dry_run, Work &work);

// The steps, in their order. Throw Failure.
void put_slot_to_flash(const Restore &restore, const Work &work, KeepReport &report);
void put_beside(Restore &restore, const Work &work, KeepReport &report);
void put_in_place(Restore &restore);
void apply_definition(const Restore &restore);
void record_versions(const Restore &restore, Work &work);
void end_restore(const Restore &restore);

// What the definition says of a reboot.
bool needs_reboot(const Restore &restore);

}  // namespace kestactl
