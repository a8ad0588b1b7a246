// A saved group, whose commands are killed at one call after the other.
#pragma once

#include <cstdlib>
#include <map>
#include <string>

#include "saved_group.h"

namespace test {

// A command that is killed, or whose undo is.
struct Killed {
    const char *name;
    const char *command;
};
inline void PrintTo(const Killed &killed, std::ostream *out) { *out << killed.command; }

// Every so many points are tried. 'make test-long' tries each one.
inline const char *given_kill_step() { return getenv("KESTA_TEST_KILL_STEP"); }
inline int kill_step(int otherwise = KESTA_KILL_STEP)
{
    return given_kill_step() != nullptr ? std::atoi(given_kill_step()) : otherwise;
}

class KilledGroup : public SavedGroup, public testing::WithParamInterface<Killed> {
protected:
    using Contents = std::map<std::string, std::string>;

    KilledGroup()
    {
        fs::copy_file(KESTA_FAST_CLOCK_LIBRARY, host_path(0, "opt/libfast_clock.so"));
        define("");
        succeed("kestactl save network && kestactl accept");
    }

    // Waits for a dead one's inner lock pass at once.
    Ran quickly(const std::string &command) const
    {
        return on(0, "export LD_PRELOAD=/opt/libfast_clock.so; " + command);
    }

    // What each place holds, by its name.
    Contents contents() const
    {
        return {{"flash backup", read_file(host_path(0, flash_backup.substr(1)))},
                {"flash accept", read_file(host_path(0, flash_accept.substr(1)))},
                {"backup slot", slot("kesta_backup0")},
                {"accept slot", slot("kesta_backup1")},
                {"file one", read_file(host_path(0, "etc/app/one"))},
                {"file two", read_file(host_path(0, "etc/app/more/two"))}};
    }
};

}  // namespace test
