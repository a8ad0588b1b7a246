// Generations as history shows them.
#pragma once

#include "command.h"
#include "history.h"

namespace kestactl {

Json history_json(const Generation &generation);

// One line of a list; all that is known, in lines of its own.
std::string history_line(const Generation &generation);
std::string history_lines(const Generation &generation);

}  // namespace kestactl
