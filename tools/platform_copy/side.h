// One side of a copy: a platform, asked by a process of its own, since a process has the libraries of one platform only.
#pragma once

#include <string>

#include "platform_state.h"

namespace platform_copy {

class Side {
public:
    // A platform by its name, and its settings file; empty: the one that the platform reads anyway. Throws Stopped: it is
    // not installed.
    Side(const std::string &name, const std::string &settings);

    const std::string &name() const { return name_; }

    PlatformState read() const;
    void write(const PlatformState &state) const;

    // What the process of a side does, in the place of main(); -1: it is none.
    static int run_as_side(int argc, char **argv);

private:
    int start(const char *what, int input, int output) const;

    std::string name_;
    std::string settings_;
    std::string libraries_;  // their folder
};

}  // namespace platform_copy
