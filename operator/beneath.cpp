#include "beneath.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

namespace engine {
namespace {

constexpr int own_flags = O_CLOEXEC | O_NOFOLLOW | O_NOCTTY;
constexpr int folder_flags = O_PATH | O_DIRECTORY;
constexpr mode_t permission_bits = 07777;
constexpr int most_links = 40;  // on a way, as for the kernel

using Parts = std::vector<std::string>;

// The names of a path; false if it has one that does not name anything below the root.
bool split(const std::string &path, Parts &parts)
{
    for (std::size_t at = 0; at < path.size();) {
        const std::size_t slash = std::min(path.find('/', at), path.size());
        const std::string part = path.substr(at, slash - at);
        if (part == "." || part == "..") {
            errno = EXDEV;
            return false;
        }
        if (!part.empty()) {
            parts.push_back(part);
        }
        at = slash + 1;
    }
    return true;
}

std::string join(const Parts &parts)
{
    std::string path;
    for (const std::string &part : parts) {
        path += (path.empty() ? "" : "/") + part;
    }
    return path;
}

bool is_link(int folder, const std::string &name)
{
    struct stat status;
    return fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode);
}

Descriptor open_in(int folder, const std::string &name, int flags)
{
    Descriptor opened(openat(folder, name.c_str(), flags | own_flags));
    if (!opened) {
        const int error = errno;
        errno = error == ENOTDIR && is_link(folder, name) ? ELOOP : error;
    }
    return opened;
}

Descriptor open_by_steps(int root, const Parts &parts, int flags)
{
    Descriptor at = open_in(root, ".", folder_flags);
    for (std::size_t i = 0; at && i + 1 < parts.size(); ++i) {
        at = open_in(at.get(), parts[i], folder_flags);
    }
    return at ? open_in(at.get(), parts.empty() ? "." : parts.back(), flags) : Descriptor();
}

bool belongs_to_root(const struct stat &status) { return status.st_uid == 0 || status.st_uid == geteuid(); }

// Where a link leads that only root can have made.
std::optional<std::string> trusted_link(const Entry &entry)
{
    struct stat folder;
    struct stat link;
    const bool trusted = fstat(entry.folder.get(), &folder) == 0 && belongs_to_root(folder) &&
                         (folder.st_mode & (S_IWGRP | S_IWOTH)) == 0 && stat_of(entry, link) && S_ISLNK(link.st_mode) &&
                         belongs_to_root(link);
    return trusted ? link_text(entry) : std::nullopt;
}

// Puts the parts that a link's text has before those that are left.
Parts put_before(const std::string &text, const Parts &left)
{
    Parts parts;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t slash = std::min(text.find('/', at), text.size());
        if (slash > at) {
            parts.push_back(text.substr(at, slash - at));
        }
        at = slash + 1;
    }
    parts.insert(parts.end(), left.begin(), left.end());
    return parts;
}

// Whether the kernel has no such call, or somebody keeps it from us.
bool is_unknown_call(int error)
{
    return error == ENOSYS || error == EPERM || error == EINVAL || error == E2BIG || error == EAGAIN;
}

Descriptor open_by_kernel(int root, const Parts &parts, int flags)
{
    struct open_how how {};
    how.flags = static_cast<std::uint64_t>(static_cast<unsigned>(flags | own_flags));
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
    const std::string path = parts.empty() ? "." : join(parts);
    return Descriptor(static_cast<int>(syscall(SYS_openat2, root, path.c_str(), &how, sizeof(how))));
}

bool is_own(const struct stat &status) { return status.st_uid == geteuid(); }

}  // namespace

Descriptor::~Descriptor()
{
    const int error = errno;
    (void)close();  // what was written is closed by those who wrote it
    errno = error;
}

Descriptor &Descriptor::operator=(Descriptor &&other) noexcept
{
    std::swap(fd_, other.fd_);
    return *this;
}

bool Descriptor::close()
{
    const int fd = std::exchange(fd_, -1);
    return fd < 0 || ::close(fd) == 0;
}

Beneath::Beneath(const std::string &root, Walk walk)
    : root_(::open(root.c_str(), folder_flags | O_CLOEXEC)), walk_(walk)
{
}

Descriptor Beneath::open(const std::string &path, int flags) const
{
    Parts parts;
    if (!split(path, parts)) {
        return Descriptor();
    }
    if (walk_ == Walk::by_kernel) {
        Descriptor opened = open_by_kernel(root_.get(), parts, flags);
        if (opened || !is_unknown_call(errno)) {
            return opened;
        }
    }
    return open_by_steps(root_.get(), parts, flags);
}

Entry Beneath::entry(const std::string &path) const
{
    Parts parts;
    if (!split(path, parts)) {
        return {};
    }
    if (parts.empty()) {
        errno = EISDIR;
        return {};
    }
    Entry entry;
    entry.name = parts.back();
    parts.pop_back();
    entry.folder = open(join(parts), folder_flags);
    return entry;
}

std::string Beneath::settled(const std::string &path) const
{
    Parts left = put_before(path, {});
    Parts done;
    for (int links = 0; !left.empty() && links <= most_links;) {
        const std::string part = left.front();
        left.erase(left.begin());
        if (part == "." || part == "..") {
            if (part == ".." && !done.empty()) {
                done.pop_back();
            }
            continue;
        }
        done.push_back(part);
        const Entry entry = this->entry(join(done));
        const std::optional<std::string> text = entry ? trusted_link(entry) : std::nullopt;
        if (text) {
            ++links;
            done.pop_back();
            done = text->starts_with('/') ? Parts() : done;
            left = put_before(*text, left);
        }
    }
    done.insert(done.end(), left.begin(), left.end());
    return join(done);
}

std::string Beneath::obstacle(const std::string &path) const
{
    Parts parts;
    Parts way;
    if (!split(path, parts)) {
        return path;
    }
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
        way.push_back(parts[i]);
        if (!open(join(way), folder_flags)) {
            return errno == ENOENT ? "" : "/" + join(way);
        }
    }
    return "";
}

bool stat_of(const Entry &entry, struct stat &status)
{
    return fstatat(entry.folder.get(), entry.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

std::optional<std::string> link_text(const Entry &entry)
{
    std::array<char, PATH_MAX> text{};
    const ssize_t length = readlinkat(entry.folder.get(), entry.name.c_str(), text.data(), text.size());
    if (length < 0) {
        return std::nullopt;
    }
    return std::string(text.data(), static_cast<std::size_t>(length));
}

Descriptor open_plain(const Entry &entry, struct stat &status)
{
    const auto plain = [&status] {
        if (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) {
            return true;
        }
        errno = S_ISLNK(status.st_mode) ? ELOOP : EINVAL;
        return false;
    };
    if (!stat_of(entry, status) || !plain()) {
        return Descriptor();
    }
    // It may be another one by now: nothing that would be waited for is.
    Descriptor opened = open_in(entry.folder.get(), entry.name, O_RDONLY | O_NONBLOCK);
    if (opened && (fstat(opened.get(), &status) != 0 || !plain())) {
        return Descriptor();
    }
    return opened;
}

Descriptor open_itself(const Entry &entry, struct stat &status)
{
    Descriptor opened = open_in(entry.folder.get(), entry.name, O_PATH);
    if (opened && fstat(opened.get(), &status) != 0) {
        return Descriptor();
    }
    return opened;
}

Descriptor make_file(const Entry &entry)
{
    return Descriptor(openat(entry.folder.get(), entry.name.c_str(), O_RDWR | O_CREAT | O_EXCL | own_flags,
                             static_cast<mode_t>(0600)));
}

Descriptor make_folder(const Entry &entry)
{
    if (mkdirat(entry.folder.get(), entry.name.c_str(), 0700) != 0) {
        return Descriptor();
    }
    struct stat status;
    Descriptor folder = open_in(entry.folder.get(), entry.name, O_RDONLY | O_DIRECTORY);
    if (folder && (fstat(folder.get(), &status) != 0 || !is_own(status))) {
        errno = EXDEV;
        return Descriptor();
    }
    return folder;
}

Descriptor make_link(const Entry &entry, const std::string &target)
{
    if (symlinkat(target.c_str(), entry.folder.get(), entry.name.c_str()) != 0) {
        return Descriptor();
    }
    struct stat status;
    Descriptor link = open_itself(entry, status);
    if (link && (!S_ISLNK(status.st_mode) || !is_own(status))) {
        errno = EXDEV;
        return Descriptor();
    }
    return link;
}

bool make_name(const Entry &entry, const Descriptor &file)
{
    if (linkat(file.get(), "", entry.folder.get(), entry.name.c_str(), AT_EMPTY_PATH) == 0) {
        return true;
    }
    if (errno == EEXIST) {
        return false;
    }
    const std::string path = "/proc/self/fd/" + std::to_string(file.get());
    return linkat(AT_FDCWD, path.c_str(), entry.folder.get(), entry.name.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

bool take_place(const Entry &entry, const std::string &from)
{
    return renameat(entry.folder.get(), from.c_str(), entry.folder.get(), entry.name.c_str()) == 0;
}

bool remove(const Entry &entry, const std::string &name) { return unlinkat(entry.folder.get(), name.c_str(), 0) == 0; }

bool set_owner(const Descriptor &thing, uid_t owner, gid_t group)
{
    return fchownat(thing.get(), "", owner, group, AT_EMPTY_PATH) == 0;
}

bool set_mode(const Descriptor &thing, mode_t mode) { return fchmod(thing.get(), mode & permission_bits) == 0; }

bool set_modified(const Descriptor &thing, const timespec &time)
{
    const std::array<timespec, 2> times{time, time};
    return futimens(thing.get(), times.data()) == 0;
}

}  // namespace engine
