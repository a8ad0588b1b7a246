// Putting the files of an archive in place of those of the system. All of it is done by descriptor.
#pragma once

#include <set>
#include <string>

#include "file_changes.h"

namespace engine {

// Puts what is replaced beside the old ones, whole and flushed: each file system once, before the first of them takes its
// place. Nothing that is in use has changed then. What was kept of them is given up, each as soon as it is written: it may
// lie on the same disk. Throws Failure, and leaves nothing behind.
void stage_files(const Archive &archive, RestoredFiles &files, FileChanges &changes, const GroupPlaces &places);

// Lets them take their places, one by one: each path has the old file or the new one at any moment.
// Throws Failure.
void place_files(const RestoredFiles &files, FileChanges &changes, const GroupPlaces &places);

// Best effort: what was staged and not placed.
void remove_staged(const std::set<std::string> &paths, const GroupPlaces &places);

}  // namespace engine
