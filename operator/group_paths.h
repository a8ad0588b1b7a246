// The paths of a group's definition: what belongs to them, and where they lie on this system.
// Saving and restoring go by the same rules, so that what is saved can be restored.
#pragma once

#include <kesta/kesta.h>

#include <map>
#include <string>
#include <vector>

#include "archive_members.h"
#include "beneath.h"

namespace engine {

// Paths are those of archives: relative to the root.
class GroupPaths {
public:
    // Of these, what lies at or below one path is wanted; with an empty one, all of them. Throws
    // Failure: a path that can't be archived, or one that is not the group's.
    explicit GroupPaths(const KESTA_BACKUP_FILE &definition, const std::string &only = "");

    const std::vector<std::string> &all() const { return all_; }
    const std::vector<std::string> &wanted() const { return wanted_; }
    bool names(const std::string &path) const;
    bool wants(const std::string &path) const { return any_of(wanted_, path); }
    bool contains(const std::string &path) const { return any_of(all_, path); }
    bool leads_to_wanted(const std::string &path) const;

    // Why a member of these paths can't be saved and restored: what follows its name in a sentence.
    // Empty if it can.
    std::string fault_of(const Member &member) const;

private:
    static bool any_of(const std::vector<std::string> &paths, const std::string &path);
    std::string fault_of_link(const Member &member) const;

    std::vector<std::string> all_;
    std::vector<std::string> wanted_;
};

// Where a group's paths lie: an operator may have moved a folder on the way to one, and left a
// link. Below the path itself no link is followed.
class GroupPlaces {
public:
    explicit GroupPlaces(const GroupPaths &paths);

    const Beneath &root() const { return root_; }
    std::string place_of(const std::string &path) const;

    // Throws Failure: something on the way is no folder of root's. An entry without a folder: the
    // way is not there yet.
    Entry entry(const std::string &path) const;

private:
    Beneath root_;
    std::map<std::string, std::string> places_;  // of the group's paths
};

// A path lies at another one or below it.
bool is_within(const std::string &path, const std::string &folder);

// A path as it stands in definitions and archives: one slash between two names, and none at the end, where shells that
// complete or join paths leave more.
std::string without_needless_slashes(const std::string &path);

// Why a path of a definition can't be archived: what follows it in a sentence. Empty if it can.
std::string fault_of_path(const std::string &text);
// The same as a Failure.
void check_file_path(const std::string &text);

// Where a new file lies until it takes its place: its name in the same folder.
std::string staged_name(const std::string &name);

}  // namespace engine
