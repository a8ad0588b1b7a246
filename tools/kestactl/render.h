// What the engine knows, as JSON.
#pragma once

#include "command.h"
#include "lock_state.h"
#include "script_run.h"

namespace kestactl {

Json to_json(const CommandLock &lock, const std::string &group);
Json to_json(const ScriptEnd &end);

}  // namespace kestactl
