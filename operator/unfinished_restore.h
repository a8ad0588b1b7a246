// A restore that was begun: kept on flash until its last file has its place, so that whoever comes after a
// crash knows.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace engine {

inline constexpr const char *from_undo = "undo";

struct UnfinishedRestore {
    std::string group;
    std::string from;  // "backup", "accept", "generation:SHA256", or from_undo
    std::string only;  // empty: all paths of the group
    bool on_reboot = false;
    std::set<std::string> replaced;  // what was to be replaced

    // What completes it: "kestactl restore network --from accept"
    std::string command() const;
    std::vector<std::string> words() const;
};

// Throws Failure if there is one that can't be read.
std::optional<UnfinishedRestore> unfinished_restore();

// Throw Failure.
void note_unfinished(const UnfinishedRestore &restore);
void note_finished();

// Refuses while a restore is unfinished: what the group's files hold is a mixture then. Throws Failure.
void require_no_unfinished_restore();

}  // namespace engine
