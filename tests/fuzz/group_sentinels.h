// A group's files in the scratch root, and what lies around them: all of it called inside.
#pragma once

#include <map>
#include <string>

namespace fuzz {

// Once: what must stay as it is. Files beside the group's, folders whose names begin like theirs,
// links and second names that lead out.
void lay_out_sentinels();

// The group's files as they were at first.
void lay_out_group();

// What there is, by path: kind, owner, mode, time, contents, and where links lead. A program with
// another one's rights ends the process.
struct Found {
    std::string what;
    unsigned long names = 0;
};
using Picture = std::map<std::string, Found>;

Picture picture_outside();  // of the group's paths
Picture picture_inside();

}  // namespace fuzz
