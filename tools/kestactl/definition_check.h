// Everything that is wrong with a definition, at once and with line numbers. The library stops at the
// first thing; what it accepts has no errors here, and the other way round.
#pragma once

#include <string>
#include <vector>

namespace kestactl {

struct Finding {
    long line;
    bool error;  // else something that the library ignores, and that may not be meant so
    std::string text;
};

struct CheckedDefinition {
    std::string id;  // as far as it could be read
    std::vector<Finding> findings;

    bool accepted() const;
};

// Throws Failure if the file can't be opened.
CheckedDefinition check_definition(const std::string &path);

}  // namespace kestactl
