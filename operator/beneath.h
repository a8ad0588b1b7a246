// Files and folders below a root, reached by descriptor: no link is followed, neither on the way
// nor at its end, and nothing leads out of the root. What is found is worked on by its descriptor,
// so that whoever owns a folder on the way can't put something else in its place meanwhile.
//
// Calls that fail say why in errno: ELOOP for a link, ENOTDIR for another thing that is no folder.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>

namespace engine {

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor();
    Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept;
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

    // Closes now, for what was written. Whether that succeeded.
    bool close();

private:
    int fd_ = -1;
};

// A name in a folder. Whether there is anything of that name is another question.
struct Entry {
    Descriptor folder;
    std::string name;

    explicit operator bool() const { return static_cast<bool>(folder); }
};

// Which file it is, whatever its names are.
struct FileNumber {
    dev_t device = 0;
    ino_t inode = 0;

    explicit FileNumber(const struct stat &status) : device(status.st_dev), inode(status.st_ino) {}
    bool operator==(const FileNumber &) const = default;
};

class Beneath {
public:
    // The kernel resolves a path in one call, where it can; otherwise it is walked folder by
    // folder.
    enum class Walk { by_kernel, by_steps };

    explicit Beneath(const std::string &root = "/", Walk walk = Walk::by_kernel);

    // Paths are relative to the root, with or without a slash before them, and have no "." and no
    // "..".
    Descriptor open(const std::string &path, int flags) const;
    Entry entry(const std::string &path) const;

    // The same path with the links in it resolved that only root can have made: root's own, in
    // folders that nobody else can write to. Others stay in it, so that opening it fails.
    std::string settled(const std::string &path) const;

    // The first part of the way to a path that is there and no folder; empty if there is none.
    std::string obstacle(const std::string &path) const;

private:
    Descriptor root_;
    Walk walk_;
};

// What lies there, links themselves included.
bool stat_of(const Entry &entry, struct stat &status);

// Where a link leads by its text.
std::optional<std::string> link_text(const Entry &entry);

// Opens a plain file or a folder for reading. Never a device or a FIFO: those may wait, or act,
// when they are opened. EINVAL says so.
Descriptor open_plain(const Entry &entry, struct stat &status);

// The thing itself, for its owner: also a link.
Descriptor open_itself(const Entry &entry, struct stat &status);

// Each makes something new of root's own that nobody else may open yet, or fails with EEXIST.
Descriptor make_file(const Entry &entry);
Descriptor make_folder(const Entry &entry);
Descriptor make_link(const Entry &entry, const std::string &target);

// Another name for a file that is open.
bool make_name(const Entry &entry, const Descriptor &file);

// Lets what has one name of the folder take the place of another one.
bool take_place(const Entry &entry, const std::string &from);
bool remove(const Entry &entry, const std::string &name);

// Of what is open. The owner first: giving a file away takes its special bits.
bool set_owner(const Descriptor &thing, uid_t owner, gid_t group);
bool set_mode(const Descriptor &thing, mode_t mode);
bool set_modified(const Descriptor &thing, const timespec &time);

}  // namespace engine
