// How this system differs from the files of an archive.
#pragma once

#include <map>
#include <set>
#include <string>

#include "beneath.h"
#include "restored_files.h"

namespace engine {

// How the system differs from them.
struct FileChanges {
    std::set<std::string> replaced;  // absolute paths whose contents differ, or that are missing
    std::set<std::string> adjusted;  // only owner or mode differ
    std::set<std::string> removed;
    std::map<std::string, FileNumber> known;  // which file was compared at a path, or put beside it

    bool none() const { return replaced.empty() && adjusted.empty() && removed.empty(); }
};

// Compares, and looks whether each place may be written: a file where a folder is to be, or a path
// that leads through a link, is refused. The archive is read again only for files that were changed since its members were
// chosen, and of which nothing was kept. Throws Failure.
FileChanges compare_files(const Archive &archive, const RestoredFiles &files, const GroupPlaces &places);

}  // namespace engine
