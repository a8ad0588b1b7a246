// The files of a group as an archive holds them.
#pragma once

#include <kesta/kesta.h>

#include <map>
#include <string>
#include <vector>

#include "archive_members.h"
#include "compared_contents.h"
#include "group_paths.h"
#include "kept_contents.h"

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
    ComparedContents compared;              // with what this system has, while they were chosen
    KeptContents kept;                      // of what this system has not
};

// Chooses the members of a definition's paths, or of what lies at and below one path of them. The archive is tested to its
// end, and held against the files of this system, while it is unpacked this once. Who is going to restore them has the
// contents kept that this system does not have; who only looks keeps nothing.
// Throws Failure: the archive is damaged or too large, lacks a path (where the group's operation
// does not allow that), or holds what must not be unpacked: names with "..", absolute ones, members
// below one that is no folder, links that lead out of the paths, devices.
RestoredFiles choose_files(const Archive &archive, const KESTA_BACKUP_FILE &definition, const GroupPaths &paths,
                           KeptContents kept = {});

// By the numbers of the members whose contents they get.
using FilesByContents = std::map<std::size_t, const RestoredFile *>;

// The contents of the members that these files get. What was kept comes first, from the last member to the first: a visit
// may drop what it has taken. Only for what was not kept is the archive unpacked again, and not to its end: it was tested
// when they were chosen. Throws Failure.
void for_each_file(const Archive &archive, const KeptContents &kept, const FilesByContents &wanted,
                   const std::function<void(const RestoredFile &, const ReadMember &)> &visit);

}  // namespace engine
