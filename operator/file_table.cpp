#include "file_table.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "archive_contents.h"
#include "checksum.h"
#include "text_difference.h"
#include "whole_file.h"

namespace engine {
namespace {

constexpr mode_t permissions = 07777;

// Each number is asked for once in a run.
const std::string &user_of(uid_t uid)
{
    static std::map<uid_t, std::string> known;
    const auto [at, is_new] = known.try_emplace(uid);
    if (is_new) {
        const passwd *const user = getpwuid(uid);
        at->second = user ? user->pw_name : std::to_string(uid);
    }
    return at->second;
}

const std::string &group_of(gid_t gid)
{
    static std::map<gid_t, std::string> known;
    const auto [at, is_new] = known.try_emplace(gid);
    if (is_new) {
        const ::group *const group = getgrgid(gid);
        at->second = group ? group->gr_name : std::to_string(gid);
    }
    return at->second;
}

MemberKind kind_of(mode_t mode)
{
    return S_ISREG(mode)   ? MemberKind::file
           : S_ISDIR(mode) ? MemberKind::folder
           : S_ISLNK(mode) ? MemberKind::link
                           : MemberKind::special;
}

FileState state_from(const struct stat &status)
{
    return {kind_of(status.st_mode),
            status.st_mode & permissions,
            user_of(status.st_uid),
            group_of(status.st_gid),
            "",
            S_ISREG(status.st_mode) ? static_cast<std::uint64_t>(status.st_size) : 0};
}

// What lies between the pieces is zeros.
void add_zeros(Checksum &checksum, std::uint64_t count)
{
    static const std::string zeros(1 << 16, '\0');
    for (; count > 0; count -= std::min<std::uint64_t>(count, zeros.size())) {
        checksum.add({zeros.data(), static_cast<std::size_t>(std::min<std::uint64_t>(count, zeros.size()))});
    }
}

bool is_dots(const std::string &name) { return name == "." || name == ".."; }

}  // namespace

FileState MemberStates::state_of(const Member &member)
{
    return {member.kind,
            member.mode & permissions,
            user_of(owners_.owner_of(member)),
            group_of(owners_.group_of(member)),
            member.target,
            member.kind == MemberKind::file ? member.size : 0};
}

std::string contents_of(const Member &member, const ReadMember &read)
{
    std::string text(static_cast<std::size_t>(member.size), '\0');
    read([&text](std::uint64_t offset, std::string_view piece) {
        if (offset <= text.size() && piece.size() <= text.size() - offset) {
            piece.copy(text.data() + offset, piece.size());
        }
    });
    return text;
}

std::string checksum_of_text(const std::string &text)
{
    Checksum checksum;
    checksum.add(text);
    return checksum.text();
}

FileState with_checksum(FileState state, const Member &member, const ReadMember &read)
{
    if (member.kind == MemberKind::file) {
        Checksum checksum;
        std::uint64_t at = 0;
        read([&](std::uint64_t offset, std::string_view piece) {
            add_zeros(checksum, offset > at ? offset - at : 0);
            checksum.add(piece);
            at = offset + piece.size();
        });
        add_zeros(checksum, member.size > at ? member.size - at : 0);
        state.sha256 = checksum.text();
    }
    return state;
}

const Entry &LiveFiles::entry_of(const std::string &path)
{
    const std::string place = places_.place_of(path);
    const std::size_t slash = place.rfind('/');
    const std::string folder = slash == std::string::npos ? "" : place.substr(0, slash);
    if (entry_ && !folder.empty() && folder == folder_) {
        entry_.name = place.substr(slash + 1);
        return entry_;
    }
    entry_ = places_.entry(path);
    folder_ = folder;
    return entry_;
}

Descriptor LiveFiles::open_file(const std::string &path, struct stat &status)
{
    const Entry &entry = entry_of(path);
    Descriptor file(entry ? openat(entry.folder.get(), entry.name.c_str(),
                                   O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)
                          : -1);
    if (!file || fstat(file.get(), &status) != 0) {
        fail_file("/" + path, "opened");
    }
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        fail_file("/" + path, "opened");
    }
    return file;
}

std::optional<LiveFile> LiveFiles::look_at(const std::string &path)
{
    const Entry &entry = entry_of(path);
    struct stat status {};
    if (!entry) {
        return std::nullopt;
    }
    if (!stat_of(entry, status)) {
        if (errno == ENOENT) {
            return std::nullopt;
        }
        fail_file("/" + path, "looked at");
    }
    LiveFile file{state_from(status), FileNumber(status)};
    if (S_ISLNK(status.st_mode)) {
        file.state.target = link_text(entry).value_or("");
    }
    return file;
}

bool LiveFiles::is_same_file(const std::string &path, const std::string &other)
{
    const auto one = look_at(path);
    const auto two = look_at(other);
    return one && two && one->number == two->number;
}

std::string LiveFiles::read(const std::string &path)
{
    struct stat status {};
    const Descriptor file = open_file(path, status);
    // It was short when it was looked at; what has grown meanwhile differs all the same.
    std::string text(std::min(static_cast<std::size_t>(status.st_size), longest_compared_text + 1), '\0');
    for (std::size_t at = 0; at < text.size();) {
        const ssize_t got = pread(file.get(), text.data() + at, text.size() - at, static_cast<off_t>(at));
        if (got < 0 && errno != EINTR) {
            fail_file("/" + path, "read");
        }
        if (got == 0) {
            text.resize(at);
        }
        at += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    return text;
}

std::string LiveFiles::checksum_of(const std::string &path)
{
    struct stat status {};
    Descriptor file = open_file(path, status);
    return engine::checksum_of(contents_of_file(std::move(file), "/" + path));
}

void LiveFiles::for_each_other(const std::string &path, const std::unordered_set<std::string> &seen,
                               const Visit &visit) const
{
    const Entry entry = places_.entry(path);
    if (entry) {
        walk(entry, path, seen, visit);
    }
}

void LiveFiles::walk(const Entry &entry, const std::string &path, const std::unordered_set<std::string> &seen,
                     const Visit &visit) const
{
    struct stat status {};
    if (!stat_of(entry, status)) {
        if (errno == ENOENT) {
            return;
        }
        fail_file("/" + path, "looked at");
    }
    if (!seen.contains(path)) {
        FileState state = state_from(status);
        state.target = S_ISLNK(status.st_mode) ? link_text(entry).value_or("") : "";
        visit(path, state);
    }
    if (!S_ISDIR(status.st_mode)) {
        return;
    }
    const Descriptor folder = open_plain(entry, status);
    const int listed = folder ? fcntl(folder.get(), F_DUPFD_CLOEXEC, 3) : -1;
    const std::unique_ptr<DIR, int (*)(DIR *)> stream(listed < 0 ? nullptr : fdopendir(listed), closedir);
    if (!stream) {
        fail_file("/" + path, "read");
    }
    errno = 0;
    while (const dirent *found = readdir(stream.get())) {
        const std::string name = found->d_name;
        const std::string below = path + "/" + name;
        const bool is_known = found->d_type != DT_DIR && found->d_type != DT_UNKNOWN && seen.contains(below);
        if (!is_dots(name) && !is_known) {
            walk({Descriptor(fcntl(folder.get(), F_DUPFD_CLOEXEC, 3)), name}, below, seen, visit);
        }
        errno = 0;
    }
    if (errno != 0) {
        fail_file("/" + path, "read");
    }
}

}  // namespace engine
