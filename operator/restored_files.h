// The files of a group as an archive holds them, and how the system differs from them.
#pragma once

#include <kesta/kesta.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "archive_members.h"
#include "beneath.h"
#include "group_paths.h"

namespace engine {

// A member, and whose contents it gets: a second name of a file that is not restored itself becomes
// a file of its own.
struct RestoredFile {
    Member member;
    std::size_t contents = 0;  // a member's number

    std::string path() const { return "/" + member.path; }
};

// What of an archive is put back.
struct RestoredFiles {
    std::vector<RestoredFile> members;      // of the definition's paths, each path once, folders first
    std::map<std::string, Member> folders;  // of these, and what leads to them, for their owners and modes
    std::vector<std::string> removed;       // absolute paths that were gone when the archive was made
    std::size_t foreign = 0;                // members of other paths: left alone
};

// Chooses the members of a definition's paths, or of what lies at and below one path of them.
// Throws Failure: the archive is damaged or too large, lacks a path (where the group's operation
// does not allow that), or holds what must not be unpacked: names with "..", absolute ones, members
// below one that is no folder, links that lead out of the paths, devices.
RestoredFiles choose_files(const Archive &archive, const KESTA_BACKUP_FILE &definition,
                           const GroupPaths &paths);

// How the system differs from them.
struct FileChanges {
    std::set<std::string> replaced;  // absolute paths whose contents differ, or that are missing
    std::set<std::string> adjusted;  // only owner or mode differ
    std::set<std::string> removed;
    std::map<std::string, FileNumber> known;  // which file was compared at a path, or put beside it

    bool none() const { return replaced.empty() && adjusted.empty() && removed.empty(); }
};

// Compares, and looks whether each place may be written: a file where a folder is to be, or a path
// that leads through a link, is refused. Throws Failure.
FileChanges compare_files(const Archive &archive, const RestoredFiles &files, const GroupPlaces &places);

// A member's contents are given to each file that gets them. Throws Failure.
void for_each_file(const Archive &archive, const RestoredFiles &files,
                   const std::function<void(const RestoredFile &, const ReadMember &)> &visit);

}  // namespace engine
