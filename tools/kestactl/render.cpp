#include "render.h"

#include "utc.h"

namespace kestactl {

Json to_json(const CommandLock &lock, const std::string &group)
{
    return {{"controller", lock.controller},
            {"type", type_word(lock)},
            {"status", lock.status},
            {"identifier", std::to_string(lock.identifier)},
            {"since", utc(lock.identifier)},
            {"fresh_until", utc(lock.fresh_until)},
            {"looks_alive", lock.looks_alive()},
            {"gone", lock.gone_holder != 0},
            {"group", group},
            {"clear_with", clearing_command(lock)}};
}

Json to_json(const ScriptEnd &end)
{
    return {{"command", end.command},     {"exit_code", end.exit_code}, {"signal", end.signal},
            {"timed_out", end.timed_out}, {"seconds", end.seconds},     {"stderr", end.errors}};
}

}  // namespace kestactl
