// What the bytes of a block say, for people and for programs.
#pragma once

#include <string>
#include <vector>

#include "command.h"
#include "names.h"
#include "printable.h"

namespace kestactl {

// Numbers, texts, hexadecimal digits, or the members of a lock.
Json decoded(const Block &block, const std::vector<char> &bytes);

// A decoded value in one line.
std::string shown(const Json &value);

}  // namespace kestactl
