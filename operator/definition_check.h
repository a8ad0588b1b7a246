// Everything that is wrong with a definition, at once and with line numbers: what its reader refuses, and what
// saving, restoring and applying would refuse later, by then perhaps with half of it done.
#pragma once

#include <string>
#include <vector>

namespace engine {

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

}  // namespace engine
