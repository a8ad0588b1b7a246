// What may be asked of kestactl restore.
#pragma once

#include "environment_work.h"
#include "restore.h"

namespace kestactl {

struct RestoreFilesOptions {
    RestoreRequest request;
    WorkOptions work;
};

}  // namespace kestactl
