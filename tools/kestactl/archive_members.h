// What is in an archive, read from memory with libarchive.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace kestactl {

enum class MemberKind { file, folder, link, hard_link, special };

struct Member {
    std::string path;  // as it stands in the archive, without "./" before it or "/" behind it
    MemberKind kind = MemberKind::file;
    std::string target;  // of the two kinds of links
    mode_t mode = 0;     // the permissions
    std::string owner;   // name and number; the name counts where this system knows it
    std::string group;
    uid_t uid = 0;
    gid_t gid = 0;
    timespec modified{};
};

// Gives a file's contents; to be called at most once, while its member is visited.
using ReadMember = std::function<std::string()>;

// Visits every member, in order, and reads the archive to its end. Throws Failure: it is damaged.
void for_each_member(const std::string &archive, const std::string &name,
                     const std::function<void(const Member &, const ReadMember &)> &visit);

// The numbers that a member's owner and group have on this system.
uid_t owner_of(const Member &member);
gid_t group_of(const Member &member);

}  // namespace kestactl
