// What the files of this system hold, against members of an archive: compared while the archive is unpacked for another
// reason, and known afterwards for as long as a file is not changed.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "archive_members.h"
#include "beneath.h"
#include "group_paths.h"

namespace engine {

class ComparedContents {
public:
    // Holds the file at a member's path against it, if there is a plain one of its size. Refuses nothing of the system's.
    // Whether it is known from now on that the file holds the same.
    bool compare(const Member &member, const ReadMember &read, const GroupPlaces &places);

    // Whether the file at this path, which is in this state now, holds what the member of this number does. Nothing: they
    // were not compared, or the file may have been changed since. By its times, which the kernel alone sets: one that was
    // changed in the very moment of the comparison is not known.
    std::optional<bool> of(std::size_t number, const std::string &path, const struct stat &now) const;

    // Whether an open file holds so many bytes, and these.
    bool holds(const Descriptor &file, std::uint64_t size, const ReadMember &read);

private:
    struct Known {
        std::string path;
        struct stat status;
        bool same;
    };
    std::map<std::size_t, Known> known_;
    std::string piece_;
};

}  // namespace engine
