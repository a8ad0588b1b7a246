// The changes that commands made on this controller: the last 200, in changes.json beside the generations, newest last.
// Of the last one it is known besides what it replaced, so that it can be undone. It is written once, when a command has
// ended: a killed one is not in it, and what it changed does not look like what the last one left.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "failure.h"

namespace engine {

// What this controller goes by.
struct NamesInForce {
    std::string backup;
    std::string accept;
    int backup_version = 0;
    int accept_version = 0;
    int current_version = 0;
    int flash_version = 0;

    bool operator==(const NamesInForce &) const = default;
};

// Throws Failure: they can't be read.
NamesInForce names_in_force();

// An archive that was replaced. Checksums; empty: there was none.
struct ReplacedArchive {
    std::string place;
    std::string before;
    std::string after;
    bool was_kept = false;  // what was there before is a generation, or was nothing at all
};

// Files that a restore replaced: what they were is in the archive undo.tar.Z beside the log.
struct ReplacedFiles {
    std::string group;
    std::string sha256;                 // of that archive; empty: it holds nothing
    std::vector<std::string> replaced;  // absolute paths that are in it
    std::vector<std::string> made;      // that were not there before
};

struct Change {
    std::uint64_t id = 0;
    std::int64_t time = 0;
    int controller = -1;
    std::string user;
    std::string verb;
    std::string group;
    std::string reason;
    std::optional<int> version;
    std::string result;            // "done", "no", "held", "failed", "interrupted"
    std::string cause;             // the code of its failure; empty: done
    bool changed_nothing = false;  // it was refused, or failed before it replaced anything
    // What can be undone; only of the last one that changed something.
    bool can_be_undone = false;
    std::vector<ReplacedArchive> archives;
    std::optional<ReplacedFiles> files;
    NamesInForce before;
    NamesInForce after;
};

inline constexpr const char *undo_archive_name = "undo.tar.Z";

// Oldest first. Throws Failure: the file can't be read, or is damaged.
std::vector<Change> changes();

// Why they are not known; nothing: they are.
std::optional<Failure> fault_of_changes();

// Adds one; what earlier ones replaced is forgotten. Throws Failure.
void add_change(const Change &change);

// "done" and so on of the change with this number, where it is still known; else empty.
std::string result_of_change(std::uint64_t id);

}  // namespace engine
