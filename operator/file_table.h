// Files and members as a comparison sees them: their states, their contents where they are short, their checksums.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <unordered_set>

#include "archive_members.h"
#include "beneath.h"
#include "file_state.h"
#include "group_paths.h"

namespace engine {

// Of a member, as this system would make it: a name that it does not know counts by its number.
class MemberStates {
public:
    FileState state_of(const Member &member);

private:
    Owners owners_;
};

std::string contents_of(const Member &member, const ReadMember &read);
std::string checksum_of_text(const std::string &text);
FileState with_checksum(FileState state, const Member &member, const ReadMember &read);

// What this system has at a path.
struct LiveFile {
    FileState state;
    FileNumber number;
};

// The files of this system at a group's paths: reached by descriptor, no link is followed. The folder of the last one stays
// open: most files that are asked for lie beside the one before. Throw Failure.
class LiveFiles {
public:
    explicit LiveFiles(const GroupPaths &paths) : places_(paths) {}

    std::optional<LiveFile> look_at(const std::string &path);
    bool is_same_file(const std::string &path, const std::string &other);
    std::string read(const std::string &path);
    std::string checksum_of(const std::string &path);

    // Visits what lies at and below a path, and is not among those that were seen.
    using Visit = std::function<void(const std::string &path, const FileState &state)>;
    void for_each_other(const std::string &path, const std::unordered_set<std::string> &seen, const Visit &visit) const;

private:
    void walk(const Entry &entry, const std::string &path, const std::unordered_set<std::string> &seen,
              const Visit &visit) const;

    const Entry &entry_of(const std::string &path);
    // What was a plain file when it was looked at.
    Descriptor open_file(const std::string &path, struct stat &status);

    GroupPlaces places_;
    std::string folder_;  // of the entry
    Entry entry_;
};

}  // namespace engine
