// Differences between files, for people and for programs.
#pragma once

#include "command.h"
#include "file_difference.h"

namespace kestactl {

Json to_json(const std::vector<FileDifference> &differences);
std::string text_of(const std::vector<FileDifference> &differences);

}  // namespace kestactl
