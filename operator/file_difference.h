// How a group's files differ between two states of it: an archive and this system, or two archives. Each archive is
// unpacked once, and no file of it is held whole unless it is short.
#pragma once

#include <kesta/kesta.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "archive_members.h"
#include "file_state.h"

namespace engine {

struct FileDifference {
    std::string path;               // absolute
    std::optional<FileState> from;  // nothing: it is not there
    std::optional<FileState> to;
    std::vector<std::string> what;  // "added", "removed", or of "kind", "contents", "owner", "group", "mode", "link"
    std::string text;               // a unified difference of short texts
    std::string problem;            // why it can't be compared, or would not be restored
};

// A side: an archive, or the files of this system.
struct ComparedSide {
    std::string name;
    std::optional<Archive> archive = std::nullopt;
};

// The most that unified differences of one comparison take; files beyond are told by their checksums.
inline constexpr std::uint64_t longest_differences = std::uint64_t{8} << 20;

// By path. At least one side is an archive. Throws Failure, with exit code 4: a side can't be read or is damaged.
std::vector<FileDifference> differences(const ComparedSide &from, const ComparedSide &to,
                                        const KESTA_BACKUP_FILE &definition);

}  // namespace engine
