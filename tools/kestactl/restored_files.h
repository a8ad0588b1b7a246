// The files of a group as an archive holds them, and putting them back in place of those of the system.
#pragma once

#include <kesta/kesta.h>

#include <set>
#include <string>
#include <vector>

#include "archive_members.h"

namespace kestactl {

// What of an archive is put back.
struct RestoredFiles {
    std::vector<Member> members;       // of the definition's paths, each path once, folders first
    std::vector<Member> parents;       // folders that lead to them, for their owners and modes
    std::vector<std::string> removed;  // absolute paths that were gone when the archive was made
    std::size_t foreign = 0;           // members of other paths: left alone
};

// Chooses the members of a definition's paths, or of what lies at and below one path of them. Throws
// Failure: the archive is damaged, lacks a path (where the group's operation does not allow that), or
// holds what must not be unpacked: names with "..", absolute ones, links that lead out of the paths,
// devices.
RestoredFiles choose_files(const std::string &archive, const std::string &name,
                           const KESTA_BACKUP_FILE &definition, const std::string &only);

// How the system differs from them.
struct FileChanges {
    std::set<std::string> replaced;  // absolute paths whose contents differ, or that are missing
    std::set<std::string> adjusted;  // only owner or mode differ
    std::set<std::string> removed;

    bool none() const { return replaced.empty() && adjusted.empty() && removed.empty(); }
};

// Compares, and looks whether each place may be written: a file where a folder is to be, or a path that
// leads through somebody else's link, is refused. Throws Failure.
FileChanges compare_files(const std::string &archive, const std::string &name,
                          const RestoredFiles &files);

// Where a new file lies until it takes its place: in the same folder.
std::string staged_path(const std::string &path);

// Puts what is replaced beside the old ones, whole and flushed. Nothing that is in use has changed then.
// Throws Failure, and leaves nothing behind.
void stage_files(const std::string &archive, const std::string &name, const RestoredFiles &files,
                 const FileChanges &changes);

// Lets them take their places, one by one: each path has the old file or the new one at any moment.
// Throws Failure.
void place_files(const RestoredFiles &files, const FileChanges &changes);

// Best effort: what was staged and not placed.
void remove_staged(const std::set<std::string> &paths);

}  // namespace kestactl
