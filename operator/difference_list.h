// The differences between two sides that a comparison has found so far.
#pragma once

#include <kesta/kesta.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "file_state.h"
#include "group_paths.h"

namespace engine {

struct FileDifference {
    std::string path;               // absolute
    std::optional<FileState> from;  // nothing: it is not there
    std::optional<FileState> to;
    std::vector<std::string> what;  // "added", "removed", or of "kind", "contents", "owner", "group", "mode", "link"
    std::string text;               // a unified difference of short texts
    std::string problem;            // why it can't be compared, or would not be restored
};

// The most that unified differences of one comparison take; files beyond are told by their checksums.
inline constexpr std::uint64_t longest_differences = std::uint64_t{8} << 20;

// What differs between two states of one path, without its contents.
std::vector<std::string> properties_that_differ(const FileState &from, const FileState &to);

class DifferenceList {
public:
    DifferenceList(const KESTA_BACKUP_FILE &definition, bool reversed) : paths_(definition), reversed_(reversed) {}

    const GroupPaths &paths() const { return paths_; }

    // The first side is the archive that was read; what is found stands the other way round where it is the second one.
    void add(const std::string &path, std::optional<FileState> first, std::optional<FileState> second,
             std::vector<std::string> what, const std::string *first_text = nullptr,
             const std::string *second_text = nullptr);
    void add_problem(const std::string &path, const std::string &problem);
    void forget(const std::string &path) { found_.erase(path); }

    // Takes them out.
    std::vector<FileDifference> result();

private:
    GroupPaths paths_;
    bool reversed_;
    std::map<std::string, FileDifference> found_;  // a later member of a path counts instead of an earlier one
    std::uint64_t texts_ = 0;
};

}  // namespace engine
