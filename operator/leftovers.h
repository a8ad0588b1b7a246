// Files that are there only while a command works on them, and are left when it is killed.
#pragma once

#include <string>
#include <vector>

#include "finding.h"
#include "generations.h"
#include "storage_places.h"

namespace engine {

struct Leftover {
    std::string path;
    ArchiveEvidence evidence;

    PlaceFinding told() const;
    // What gives an error stays. What is beyond the limits of archives is kept as it is.
    bool can_be_cleared() const { return evidence.state != CopyState::unreadable || evidence.beyond_limits; }
};

// The paths of those that are there, but for the note of an unfinished restore. Throws Failure: it can't be told.
std::vector<std::string> leftover_paths();

// Those that are there, read and tested, but for the note of an unfinished restore.
std::vector<Leftover> find_leftover_files();

// Throws Failure for a path that is none of those that there may be.
void require_leftover(const std::string &path);

// For whoever is about to write over them: what is whole, or beyond the limits of archives, and in none of the four
// places, is kept as a generation. Throws Failure: it can't be kept.
KeepReport keep_leftovers(const std::string &verb, const KeepRule &rule);

// Takes one away. A whole archive, or one beyond the limits, is kept as a generation before, unless one of the four places has the same. Throws
// Failure: it can't be read or kept, and stays; or the path is none of them.
void clear_leftover(const std::string &path, const std::string &verb);

}  // namespace engine
