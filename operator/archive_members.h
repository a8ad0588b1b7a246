// What is in an archive, read in pieces with libarchive: never more of it than the limits allow, and never a file as a
// whole.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "archive_contents.h"
#include "archive_limits.h"
#include "failure.h"

namespace engine {

enum class MemberKind { file, folder, link, hard_link, special };

struct Member {
    std::string path;  // as it stands in the archive, without "." and needless slashes
    MemberKind kind = MemberKind::file;
    std::string target;  // of the two kinds of links
    mode_t mode = 0;     // the permissions
    std::string owner;   // name and number; the name counts where this system knows it
    std::string group;
    uid_t uid = 0;
    gid_t gid = 0;
    timespec modified{};
    std::uint64_t size = 0;  // of a file, with its holes
    std::size_t number = 0;  // its place in the archive
};

struct Archive {
    ArchiveContents contents;
    std::string name;  // as it is told of
    ArchiveLimits limits;
    std::function<void()> look = [] {
    };  // called again and again while it is read; may throw
};

// The same, packed as it comes.
struct PackedArchive {
    NextPiece next;
    std::uint64_t size = 0;
    std::string name;
    ArchiveLimits limits;
    std::function<void()> look = [] {
    };
};

// An archive that isn't whole, and why in a few words: "cut short", "bytes behind its end".
class DamagedArchive : public Failure {
public:
    DamagedArchive(const std::string &name, std::string reason);
    const std::string &reason() const { return reason_; }

private:
    std::string reason_;
};

// Takes a piece of a file. What lies between the pieces, and behind the last one, is zeros.
using TakePiece = std::function<void(std::uint64_t offset, std::string_view piece)>;

// Gives a file's contents; to be called at most once, while its member is visited.
using ReadMember = std::function<void(const TakePiece &)>;

// Visits every member, in order, and reads the archive to its end. It is whole if what bzip2 packed can be unpacked
// to its end, holds all members and the mark behind the last one, and nothing else follows: not in what was packed,
// and not behind it, be it zeros. Throws DamagedArchive, or Failure: it holds more than the limits allow.
void for_each_member(const Archive &archive, const std::function<void(const Member &, const ReadMember &)> &visit);
void for_each_member(const PackedArchive &archive,
                     const std::function<void(const Member &, const ReadMember &)> &visit);

// The same until visit returns false. So only what was visited to its end before may be read.
void for_members_until(const Archive &archive, const std::function<bool(const Member &, const ReadMember &)> &visit);

// The numbers that the owners and groups of members have on this system, each name asked for once.
class Owners {
public:
    uid_t owner_of(const Member &member);
    gid_t group_of(const Member &member);

private:
    std::map<std::string, std::optional<uid_t>> owners_;
    std::map<std::string, std::optional<gid_t>> groups_;
};

}  // namespace engine
