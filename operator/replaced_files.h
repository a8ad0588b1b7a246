// The files of a group that are about to be replaced, kept for undo: those that change and no others, in an archive beside
// the log of changes, which has one such archive at a time.
#pragma once

#include <functional>
#include <string>

#include "change_log.h"
#include "file_changes.h"
#include "group_paths.h"

namespace engine {

// Keeps what the changes replace, give another owner or mode, or remove; names what they make. The archive is aside until
// publish_replaced_files. Throws Failure: it can't be kept, and nothing stays of it.
ReplacedFiles keep_replaced_files(const std::string &group, const FileChanges &changes, const GroupPlaces &places,
                                  const std::function<void()> &look);

// The changes are made: from here on they are what undo takes back. Throws Failure.
void publish_replaced_files(const ReplacedFiles &files);

// Where the archive of the last change is.
std::string replaced_files_archive();

}  // namespace engine
