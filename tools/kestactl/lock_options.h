// What the commands of kestactl lock share.
#pragma once

#include <string>

#include "command.h"

namespace kestactl {

// --type and --group
void add_type_options(const Command &command, int &type, std::string &group);

// --wait
void add_lock_wait_option(const Command &command, int &wait);

}  // namespace kestactl
