// The files of a group on this system, as they go into an archive: walked by descriptor, so that
// nobody's link is followed while they are read.
#pragma once

#include <kesta/kesta.h>

#include <functional>

#include "archive_members.h"
#include "beneath.h"
#include "group_paths.h"

namespace engine {

// Takes a member, and its open file where it has contents.
using VisitSaved = std::function<void(const Member &, const Descriptor &file)>;

// What a path holds, as a member; of a link the caller adds where it leads to.
Member saved_member(const std::string &path, const struct stat &status);

// Visits the folders that lead to the group's paths, for their owners and modes, and then each path
// with what is in it, in the order of their names. Throws Failure: a file is missing (where the
// group's operation does not allow that), or could not be restored.
void for_each_saved(const KESTA_BACKUP_FILE &definition, const GroupPaths &paths, const VisitSaved &visit);

}  // namespace engine
