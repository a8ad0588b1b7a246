#include "whole_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <utility>

#include "beneath.h"
#include "failure.h"

namespace engine {
namespace {

namespace fs = std::filesystem;

constexpr mode_t finished_mode = 0644;
constexpr mode_t unfinished_mode = 0600;
constexpr std::size_t piece_size = 256UL << 10;

std::string beside(const std::string &path) { return path + ".new"; }

std::string folder_of(const std::string &path)
{
    const std::string folder = fs::path(path).parent_path().string();
    return folder.empty() ? "." : folder;
}

[[noreturn]] void refuse_kind(const std::string &path, mode_t mode)
{
    const char *kind = S_ISLNK(mode)                    ? "a symbolic link"
                       : S_ISDIR(mode)                  ? "a folder"
                       : S_ISFIFO(mode)                 ? "a FIFO"
                       : S_ISCHR(mode) || S_ISBLK(mode) ? "a device"
                                                        : "a socket";
    throw Failure(Exit::no, "not-a-file", path + " is " + kind + ", and only plain files are read or replaced.",
                  "Name another file, or see who put that there and take it away.");
}

// There is a plain file, or nothing at all.
void require_plain(const std::string &path)
{
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        refuse_kind(path, status.st_mode);
    }
}

// Makes a file that nobody else has: what an earlier command left there, or somebody planted, goes first.
int create_aside(const std::string &aside)
{
    (void)unlink(aside.c_str());  // if it stays, the next line says so
    return open(aside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, unfinished_mode);
}

bool copy_pieces(int from, int to)
{
    std::string piece(piece_size, '\0');
    for (;;) {
        const ssize_t count = read(from, piece.data(), piece.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return count == 0;
        }
        if (!write_all(to, {piece.data(), static_cast<std::size_t>(count)})) {
            return false;
        }
    }
}

// All that a file holds, into a text that comes with the room for it. False, with errno: it can't be read.
bool read_all(int file, std::string &bytes)
{
    std::size_t used = 0;
    for (;;) {
        const ssize_t count = read(file, bytes.data() + used, bytes.size() - used);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            bytes.resize(used);
            return count == 0;
        }
        used += static_cast<std::size_t>(count);
        if (used == bytes.size()) {
            bytes.resize(bytes.size() + piece_size);  // it grows meanwhile
        }
    }
}

// Fails for a file that is only partly there, and removes it.
[[noreturn]] void fail_aside(const std::string &aside, const std::string &path, const std::string &what)
{
    const int error = errno;
    remove_quietly(aside);
    errno = error;
    fail_file(path, what);
}

void flush(const std::string &path, int flags)
{
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | flags));
    if (!file || fsync(file.get()) != 0) {
        fail_file(path, "flushed to the disk");
    }
}

}  // namespace

bool write_all(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

[[noreturn]] void fail_file(const std::string &path, const std::string &what)
{
    const int error = errno;
    throw Failure(Exit::platform, error == ENOSPC || error == EDQUOT ? no_room : "file-failed",
                  path + " could not be " + what + ": " + strerror(error) + ".",
                  error == EACCES || error == EPERM    ? "Run the command as root."
                  : error == ENOSPC || error == EDQUOT ? "Make room there, then run the command again."
                                                       : "Check the folder and its space, then run the command again.");
}

// Neither a link nor a FIFO is followed or waited for.
bool is_absent(const std::string &path)
{
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0) {
        return false;
    }
    if (errno != ENOENT) {
        fail_file(path, "looked at");
    }
    return true;
}

Descriptor open_plain_file(const std::string &path)
{
    require_plain(path);
    Descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (file && fstat(file.get(), &status) == 0 && !S_ISREG(status.st_mode)) {
        refuse_kind(path, status.st_mode);
    }
    return file;
}

void flush_file(const std::string &path) { flush(path, 0); }

void flush_folder(const std::string &path)
{
    const Descriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder || fsync(folder.get()) != 0) {
        fail_file(path, "flushed to the disk");
    }
}

void publish_file(const std::string &finished, const std::string &path)
{
    require_plain(finished);
    require_plain(path);
    if (chmod(finished.c_str(), finished_mode) != 0 || rename(finished.c_str(), path.c_str()) != 0) {
        fail_file(path, "replaced");
    }
    flush_folder(folder_of(path));
}

void copy_file_whole(const std::string &from, const std::string &to)
{
    const Descriptor source(open_plain_file(from));
    if (!source) {
        fail_file(from, "copied to " + to);
    }
    const std::string aside = beside(to);
    const Descriptor copy(create_aside(aside));
    if (!copy || !copy_pieces(source.get(), copy.get()) || fsync(copy.get()) != 0) {
        fail_aside(aside, from, "copied to " + to);
    }
    publish_file(aside, to);
}

std::string read_whole_file(const std::string &path)
{
    const Descriptor file(open_plain_file(path));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) {
        fail_file(path, "read");
    }
    std::string bytes(static_cast<std::size_t>(status.st_size) + 1, '\0');
    if (!read_all(file.get(), bytes)) {
        fail_file(path, "read");
    }
    return bytes;
}

std::string read_settings(const std::string &path)
{
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file && errno == ENOENT) {
        return "";
    }
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) {
        fail_file(path, "read");
    }
    if (!S_ISREG(status.st_mode)) {
        refuse_kind(path, status.st_mode);
    }
    std::string text(static_cast<std::size_t>(status.st_size) + 1, '\0');
    if (!read_all(file.get(), text)) {
        fail_file(path, "read");
    }
    return text;
}

void write_file_whole(const std::string &path, std::string_view text)
{
    write_file_whole(path, [&text] { return std::exchange(text, {}); });
}

void write_file_whole(const std::string &path, const std::function<std::string_view()> &next)
{
    const std::string aside = beside(path);
    const Descriptor file(create_aside(aside));
    if (!file) {
        fail_aside(aside, path, "written");
    }
    try {
        for (std::string_view piece = next(); !piece.empty(); piece = next()) {
            if (!write_all(file.get(), piece)) {
                fail_file(path, "written");
            }
        }
        if (fsync(file.get()) != 0) {
            fail_file(path, "written");
        }
    } catch (const std::exception &) {
        remove_quietly(aside);
        throw;
    }
    publish_file(aside, path);
}

ExportedFile::ExportedFile(const std::string &path) : path_(path), temporary_(path + ".XXXXXX"), fd_(-1)
{
    if (path.empty()) {
        throw Failure(Exit::usage, "no-name", "A file needs a name, and an empty text is none.",
                      "Name the file to be written.");
    }
    require_plain(path);
    fd_ = mkostemp(temporary_.data(), O_CLOEXEC);
    if (fd_ < 0) {
        fail_file(path, "written");
    }
}

ExportedFile::~ExportedFile()
{
    (void)close(fd_);  // what had to reach the disk has been flushed
    if (!published_) {
        remove_quietly(temporary_);
    }
}

std::string ExportedFile::writable_path() const { return "/proc/self/fd/" + std::to_string(fd_); }

void ExportedFile::write(const std::string &text) const
{
    if (!write_all(fd_, text)) {
        fail_file(path_, "written");
    }
}

void ExportedFile::publish()
{
    if (fsync(fd_) != 0 || fchmod(fd_, finished_mode) != 0) {
        fail_file(path_, "written");
    }
    require_plain(path_);
    if (rename(temporary_.c_str(), path_.c_str()) != 0) {
        fail_file(path_, "replaced");
    }
    published_ = true;
    flush_folder(folder_of(path_));
}

void remove_quietly(const std::string &path)
{
    (void)unlink(path.c_str());  // best effort
}

}  // namespace engine
