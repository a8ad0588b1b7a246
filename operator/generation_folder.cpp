#include "generation_folder.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "checksum.h"
#include "kesta/paths.h"
#include "whole_file.h"

namespace engine {
namespace {

constexpr const char *unfinished_name = ".unfinished";
constexpr const char *unfinished_link = ".unfinished.link";
constexpr mode_t folder_mode = 0700;
constexpr mode_t own_mode = 0600;
constexpr mode_t permissions = 07777;
constexpr int lock_tries = 3000;
constexpr timespec between_tries{0, 20'000'000};  // a minute in all

void wait_for_lock(const Descriptor &folder, const std::string &path, int kind)
{
    for (int tries = 0; flock(folder.get(), kind | LOCK_NB) != 0; ++tries) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            fail_file(path, "locked");
        }
        if (tries == lock_tries) {
            throw Failure(Exit::locked, "generations-locked",
                          "Another command has held the generations in " + path + " for a minute.",
                          "Nothing was changed. See what it waits for, and run this command again.");
        }
        (void)nanosleep(&between_tries, nullptr);
    }
}

// Nobody else can have put it there, or looks into it.
void require_own(const Descriptor &folder, const std::string &path)
{
    struct stat status {};
    if (fstat(folder.get(), &status) != 0) {
        fail_file(path, "looked at");
    }
    if (status.st_uid != geteuid()) {
        throw Failure(Exit::platform, "foreign-folder",
                      path + " belongs to user " + std::to_string(status.st_uid) + ".",
                      "Generations are kept in a folder of root's only: move it away, and run the command again.");
    }
    if ((status.st_mode & permissions) != folder_mode && fchmod(folder.get(), folder_mode) != 0) {
        fail_file(path, "closed to others");
    }
}

[[noreturn]] void fail_writing(const std::string &path, const char *what)
{
    if (errno == ENOSPC || errno == EDQUOT) {
        throw NoRoom(path);
    }
    fail_file(path, what);
}

}  // namespace

std::string archive_name(const std::string &sha256) { return sha256 + archive_suffix; }
std::string entry_name(const std::string &sha256) { return sha256 + entry_suffix; }

NoRoom::NoRoom(const std::string &path)
    : Failure(Exit::platform, no_room, "There is no room left for " + path + ".",
              "Nothing was changed. Make room in " KESTA_FLASH_DIRECTORY
              ", or give --keep 0 to keep nothing of what is overwritten.")
{
}

GenerationFolder::GenerationFolder(const std::string &parent, Purpose purpose)
    : path_(parent + (parent.ends_with('/') ? "" : "/") + generations_name)
{
    const bool changing = purpose == Purpose::changing;
    const Beneath root;
    const Descriptor above = root.open(root.settled(parent), O_RDONLY | O_DIRECTORY);
    if (!above && (changing || errno != ENOENT)) {
        fail_file(parent, "opened");
    }
    if (changing && mkdirat(above.get(), generations_name, folder_mode) == 0) {
        if (fsync(above.get()) != 0) {
            fail_file(parent, "flushed to the disk");
        }
    } else if (changing && errno != EEXIST) {
        fail_writing(path_, "made");
    }
    if (above) {
        folder_ = Descriptor(openat(above.get(), generations_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!folder_ && (changing || errno != ENOENT)) {
            fail_file(path_, "opened");
        }
    }
    if (changing) {
        require_own(folder_, path_);
    }
    if (folder_) {
        wait_for_lock(folder_, path_, changing ? LOCK_EX : LOCK_SH);
    }
}

std::vector<std::string> GenerationFolder::sums_with(const std::string &suffix) const
{
    std::vector<std::string> sums;
    if (!folder_) {
        return sums;
    }
    const int fd = openat(folder_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR *)> stream(fd < 0 ? nullptr : fdopendir(fd), closedir);
    if (!stream) {
        fail_file(path_, "read");
    }
    errno = 0;
    while (const dirent *entry = readdir(stream.get())) {
        const std::string name = entry->d_name;
        const std::string sum = name.substr(0, checksum_length);
        if (is_checksum(sum) && name == sum + suffix) {
            sums.push_back(sum);
        }
        errno = 0;
    }
    if (errno != 0) {
        fail_file(path_, "read");
    }
    std::sort(sums.begin(), sums.end());
    return sums;
}

Descriptor GenerationFolder::open(const std::string &name) const
{
    struct stat status {};
    Descriptor file(folder_ ? openat(folder_.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC) : -1);
    if (!folder_) {
        errno = ENOENT;
    }
    if (!file && errno != ENOENT) {
        fail_file(path_of(name), "read");
    }
    if (file && (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))) {
        errno = EINVAL;
        fail_file(path_of(name), "read");
    }
    return file;
}

std::optional<struct stat> GenerationFolder::status_of(const std::string &name) const
{
    struct stat status {};
    const Descriptor file = open(name);
    if (!file) {
        return std::nullopt;
    }
    if (fstat(file.get(), &status) != 0) {
        fail_file(path_of(name), "looked at");
    }
    return status;
}

std::optional<ArchiveContents> GenerationFolder::contents(const std::string &name) const
{
    Descriptor file = open(name);
    return file ? std::optional(contents_of_file(std::move(file), path_of(name))) : std::nullopt;
}

std::optional<std::string> GenerationFolder::read(const std::string &name) const
{
    const Descriptor file = open(name);
    struct stat status {};
    if (!file) {
        return std::nullopt;
    }
    if (fstat(file.get(), &status) != 0) {
        fail_file(path_of(name), "looked at");
    }
    std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
    for (std::size_t at = 0; at < bytes.size();) {
        const ssize_t got = ::read(file.get(), bytes.data() + at, bytes.size() - at);
        if (got < 0 && errno != EINTR) {
            fail_file(path_of(name), "read");
        }
        if (got == 0) {
            bytes.resize(at);
        }
        at += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    return bytes;
}

std::optional<std::string> GenerationFolder::checksum_of(const std::string &name) const
{
    const auto contents = this->contents(name);
    return contents ? std::optional(engine::checksum_of(*contents)) : std::nullopt;
}

void GenerationFolder::write(const std::string &name, std::string_view bytes) const
{
    write(name, contents_of_bytes(std::string(bytes)));
}

void GenerationFolder::write(const std::string &name, const ArchiveContents &contents) const
{
    remove_unfinished();
    Descriptor file(
        openat(folder_.get(), unfinished_name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, own_mode));
    const auto require = [this, &name](bool done) {
        if (!done) {
            fail_writing(path_of(name), "written");
        }
    };
    try {
        require(static_cast<bool>(file));
        for_each_piece(contents, [&](std::string_view piece) { require(write_all(file.get(), piece)); });
        require(fsync(file.get()) == 0 && file.close() &&
                renameat(folder_.get(), unfinished_name, folder_.get(), name.c_str()) == 0);
    } catch (const std::exception &) {
        (void)unlinkat(folder_.get(), unfinished_name, 0);  // best effort: the next command takes it away
        throw;
    }
}

bool GenerationFolder::link(const Descriptor &file, const std::string &name) const
{
    remove_unfinished();
    const Entry aside{Descriptor(fcntl(folder_.get(), F_DUPFD_CLOEXEC, 3)), unfinished_link};
    return fsync(file.get()) == 0 && make_name(aside, file) &&
           renameat(folder_.get(), unfinished_link, folder_.get(), name.c_str()) == 0;
}

void GenerationFolder::make_own(const std::string &name) const
{
    const Descriptor file = open(name);
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) {
        return;
    }
    if (status.st_nlink > 1) {
        if (const auto shared = contents(name)) {
            write(name, *shared);
        }
    } else if ((status.st_mode & permissions) != own_mode) {
        (void)fchmod(file.get(), own_mode);  // the folder keeps others away
    }
}

void GenerationFolder::remove(const std::string &name) const
{
    if (unlinkat(folder_.get(), name.c_str(), 0) != 0 && errno != ENOENT) {
        fail_file(path_of(name), "removed");
    }
}

void GenerationFolder::flush() const
{
    if (fsync(folder_.get()) != 0) {
        fail_file(path_, "flushed to the disk");
    }
}

void GenerationFolder::remove_unfinished() const
{
    remove(unfinished_name);
    remove(unfinished_link);
}

}  // namespace engine
