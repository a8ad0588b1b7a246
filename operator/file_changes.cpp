#include "file_changes.h"

#include <errno.h>

#include "failure.h"
#include "whole_file.h"

namespace engine {
namespace {

[[noreturn]] void refuse_place(const std::string &path, const std::string &why)
{
    throw Failure(Exit::no, "wrong-kind", path + " " + why + ": nothing was changed.",
                  "Move it away, then run the command again.");
}

struct Present {
    Entry entry;
    bool exists = false;
    struct stat status {};
};

Present look_at(const std::string &path, const GroupPlaces &places)
{
    Present present;
    present.entry = places.entry(path);
    present.exists = present.entry && stat_of(present.entry, present.status);
    if (present.entry && !present.exists && errno != ENOENT) {
        fail_file("/" + path, "looked at");
    }
    return present;
}

bool is_folder(const Present &present) { return present.exists && S_ISDIR(present.status.st_mode); }

class Changes {
public:
    Changes(FileChanges &changes, const ComparedContents &compared, const GroupPlaces &places)
        : changes_(changes), compared_(compared), places_(places)
    {
    }

    // False: its contents have to be compared.
    bool settle_file(const RestoredFile &file)
    {
        const Present present = require_place(file);
        if (!present.exists || !S_ISREG(present.status.st_mode) ||
            static_cast<std::uint64_t>(present.status.st_size) != file.member.size) {
            changes_.replaced.insert(file.path());
            return true;
        }
        const auto same = compared_.of(file.contents, file.member.path, present.status);
        if (same) {
            settle_compared(file, present.status, *same);
        }
        return same.has_value();
    }

    void compare_file(const RestoredFile &file, const ReadMember &read)
    {
        const Present present = require_place(file);
        struct stat status;
        const Descriptor fd = open_plain(present.entry, status);
        if (!fd) {
            fail_file(file.path(), "opened");
        }
        settle_compared(file, status, S_ISREG(status.st_mode) && comparing_.holds(fd, file.member.size, read));
    }

    void compare_other(const RestoredFile &file)
    {
        const Present present = require_place(file);
        const Member &member = file.member;
        const std::string path = file.path();
        if (!present.exists || !is_same(file, present)) {
            changes_.replaced.insert(path);
            return;
        }
        changes_.known.insert_or_assign(path, FileNumber(present.status));
        if (member.kind != MemberKind::hard_link && !same_properties(member, present.status)) {
            changes_.adjusted.insert(path);
        }
    }

private:
    void settle_compared(const RestoredFile &file, const struct stat &status, bool same_contents)
    {
        if (!same_contents) {
            changes_.replaced.insert(file.path());
            return;
        }
        changes_.known.insert_or_assign(file.path(), FileNumber(status));
        // Through another name somebody else's file would be given away: it gets a file of its own.
        const bool same = same_properties(file.member, status);
        if (!same && status.st_nlink != 1) {
            changes_.replaced.insert(file.path());
        } else if (!same) {
            changes_.adjusted.insert(file.path());
        }
    }

    Present require_place(const RestoredFile &file) const
    {
        Present present = look_at(file.member.path, places_);
        if (present.exists && is_folder(present) != (file.member.kind == MemberKind::folder)) {
            refuse_place(file.path(), is_folder(present) ? "is a folder here, and no folder in the archive"
                                                         : "is no folder here, and a folder in the archive");
        }
        return present;
    }

    bool is_same(const RestoredFile &file, const Present &present) const
    {
        if (file.member.kind == MemberKind::folder) {
            return true;
        }
        if (file.member.kind == MemberKind::link) {
            return S_ISLNK(present.status.st_mode) && link_text(present.entry) == file.member.target;
        }
        // A second name of a file that is replaced would keep the old one.
        const std::string first = "/" + file.member.target;
        const auto known = changes_.known.find(first);
        return !changes_.replaced.contains(first) && known != changes_.known.end() &&
               known->second == FileNumber(present.status);
    }

    bool same_properties(const Member &member, const struct stat &status)
    {
        constexpr mode_t permissions = 07777;
        return status.st_uid == owners_.owner_of(member) && status.st_gid == owners_.group_of(member) &&
               (member.kind == MemberKind::link || (status.st_mode & permissions) == (member.mode & permissions));
    }

    FileChanges &changes_;
    const ComparedContents &compared_;
    const GroupPlaces &places_;
    ComparedContents comparing_;
    Owners owners_;
};

}  // namespace

FileChanges compare_files(const Archive &archive, const RestoredFiles &files, const GroupPlaces &places)
{
    FileChanges changes;
    Changes compared(changes, files.compared, places);
    FilesByContents unknown;
    for (const RestoredFile &file : files.members) {
        if (file.member.kind == MemberKind::file && !compared.settle_file(file)) {
            unknown[file.contents] = &file;
        }
    }
    for_each_file(archive, files.kept, unknown,
                  [&compared](const RestoredFile &file, const ReadMember &read) { compared.compare_file(file, read); });
    for (const RestoredFile &file : files.members) {
        if (file.member.kind != MemberKind::file) {
            compared.compare_other(file);
        }
    }
    for (const std::string &path : files.removed) {
        const Present present = look_at(path.substr(1), places);
        if (is_folder(present)) {
            refuse_place(path, "is a folder here, and was gone when the environment was saved");
        }
        if (present.exists) {
            changes.removed.insert(path);
        }
    }
    return changes;
}

}  // namespace engine
