// The archive of a group's files: made from the running system, and tested before anything points at it.
#pragma once

#include <kesta/kesta.h>

#include <string>
#include <vector>

namespace kestactl {

// What goes into an archive, relative to the root.
struct ArchiveContents {
    std::vector<std::string> parents;  // folders that lead to the files, for their owners and modes
    std::vector<std::string> files;    // files, links and whole folders with what is in them
};

// A path lies at another one or below it.
bool is_within(const std::string &path, const std::string &folder);

// Where a link leads by its text, relative to the root.
std::string link_destination(const std::string &link, const std::string &target);

// Throws Failure: a path of a definition that can't be archived.
void check_file_path(const std::string &text);

// Collects the files of a definition. Throws Failure: a file is missing (where the group's operation
// does not allow that), its path can't be archived, or a link leads out of the group.
ArchiveContents collect(const KESTA_BACKUP_FILE &definition);

// Makes the archive, and holds every file in it against the system again. The file is on the disk then.
// Throws Failure; no half archive stays behind.
void make_archive(const ArchiveContents &contents, const std::string &path);

// Whether an archive can be unpacked to its end.
bool is_whole_archive(const std::string &path);

// What a slot of the system backup area holds. Throws Failure if it can't be read.
std::string read_slot(const std::string &slot);

}  // namespace kestactl
