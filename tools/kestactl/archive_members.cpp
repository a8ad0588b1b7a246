#include "archive_members.h"

#include <archive.h>
#include <archive_entry.h>
#include <grp.h>
#include <pwd.h>

#include <array>
#include <memory>

#include "failure.h"

namespace kestactl {
namespace {

using Reader = std::unique_ptr<archive, decltype(&archive_read_free)>;

[[noreturn]] void fail_damaged(const std::string &name, archive *reader)
{
    const char *why = archive_error_string(reader);
    throw Failure(Exit::no, "damaged-archive",
                  name + " is damaged: " + (why ? why : "it can't be read to its end") + ".",
                  "Nothing was taken from it. See 'kestactl verify' for a good copy, or use --from for the "
                  "other environment.");
}

std::string text_or_empty(const char *text) { return text ? text : ""; }

std::string plain(std::string path)
{
    if (path.empty()) {
        return path;
    }
    while (path.starts_with("./")) {
        path.erase(0, 2);
    }
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path.empty() ? "." : path;
}

MemberKind kind_of(archive_entry *entry)
{
    if (archive_entry_hardlink(entry)) {
        return MemberKind::hard_link;
    }
    switch (archive_entry_filetype(entry)) {
    case AE_IFREG:
        return MemberKind::file;
    case AE_IFDIR:
        return MemberKind::folder;
    case AE_IFLNK:
        return MemberKind::link;
    default:
        return MemberKind::special;
    }
}

Member member_of(archive_entry *entry)
{
    Member member;
    member.path = plain(text_or_empty(archive_entry_pathname(entry)));
    member.kind = kind_of(entry);
    member.target = member.kind == MemberKind::hard_link
                        ? plain(text_or_empty(archive_entry_hardlink(entry)))
                        : text_or_empty(archive_entry_symlink(entry));
    member.mode = archive_entry_perm(entry);
    member.owner = text_or_empty(archive_entry_uname(entry));
    member.group = text_or_empty(archive_entry_gname(entry));
    member.uid = static_cast<uid_t>(archive_entry_uid(entry));
    member.gid = static_cast<gid_t>(archive_entry_gid(entry));
    member.modified = {archive_entry_mtime(entry), archive_entry_mtime_nsec(entry)};
    return member;
}

// In pieces: a damaged header may tell any size.
std::string contents(archive *reader, const std::string &name)
{
    std::string bytes;
    std::array<char, 1 << 16> piece;
    la_ssize_t got;
    while ((got = archive_read_data(reader, piece.data(), piece.size())) > 0) {
        bytes.append(piece.data(), static_cast<std::size_t>(got));
    }
    if (got < 0) {
        fail_damaged(name, reader);
    }
    return bytes;
}

}  // namespace

void for_each_member(const std::string &archive, const std::string &name,
                     const std::function<void(const Member &, const ReadMember &)> &visit)
{
    const Reader reader(archive_read_new(), archive_read_free);
    archive_read_support_filter_bzip2(reader.get());
    archive_read_support_format_tar(reader.get());
    if (archive_read_open_memory(reader.get(), archive.data(), archive.size()) != ARCHIVE_OK) {
        fail_damaged(name, reader.get());
    }
    archive_entry *entry = nullptr;
    int result;
    while ((result = archive_read_next_header(reader.get(), &entry)) == ARCHIVE_OK ||
           result == ARCHIVE_WARN) {
        visit(member_of(entry),
              [&reader, &name] { return contents(reader.get(), name); });
        if (archive_read_data_skip(reader.get()) < ARCHIVE_WARN) {
            fail_damaged(name, reader.get());
        }
    }
    if (result != ARCHIVE_EOF) {
        fail_damaged(name, reader.get());
    }
}

uid_t owner_of(const Member &member)
{
    const passwd *known = member.owner.empty() ? nullptr : getpwnam(member.owner.c_str());
    return known ? known->pw_uid : member.uid;
}

gid_t group_of(const Member &member)
{
    const ::group *known = member.group.empty() ? nullptr : getgrnam(member.group.c_str());
    return known ? known->gr_gid : member.gid;
}

}  // namespace kestactl
