// What is known of one file, folder or link, in an archive or on this system.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "archive_members.h"

namespace engine {

struct FileState {
    MemberKind kind = MemberKind::file;
    mode_t mode = 0;
    std::string owner;  // a name where there is one, else the number
    std::string group;
    std::string target;  // of links
    std::uint64_t size = 0;
    std::string sha256 = {};  // of files, where it was needed
};

// "file", "folder", "link", "second name", "special file"
const char *name_of(MemberKind kind);

}  // namespace engine
