// What may be asked of kestactl restore.
#pragma once

#include <string>

#include "environment_work.h"

namespace kestactl {

struct RestoreFilesOptions {
    std::string group;
    std::string from = "backup";  // "backup", "accept", or the name of the slot that is one of them
    std::string generation;       // of the history, instead of 'from'
    std::string only;             // a path of the group, or one below; empty: all
    bool on_reboot = false;       // the files come into force with the next reboot
    WorkOptions work;
};

}  // namespace kestactl
