// How a group's files differ between two states of it: an archive and this system, or two archives. Each archive is
// unpacked once, and no file of it is held whole unless it is short.
#pragma once

#include <kesta/kesta.h>

#include <optional>
#include <string>
#include <vector>

#include "archive_members.h"
#include "difference_list.h"

namespace engine {

// A side: an archive, or the files of this system.
struct ComparedSide {
    std::string name;
    std::optional<Archive> archive = std::nullopt;
};

// By path. At least one side is an archive. Throws Failure, with exit code 4: a side can't be read or is damaged.
std::vector<FileDifference> differences(const ComparedSide &from, const ComparedSide &to,
                                        const KESTA_BACKUP_FILE &definition);

}  // namespace engine
