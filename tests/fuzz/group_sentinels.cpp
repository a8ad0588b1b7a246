#include "group_sentinels.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>

#include "contract.h"

namespace fuzz {
namespace {

namespace fs = std::filesystem;

constexpr std::array<const char *, 5> of_the_group{"/etc/app", "/etc/single", "/etc/links/single", "/moved/data/file",
                                                   "/var/new"};
constexpr timespec long_ago{1000000000, 0};

void write_file(const char *path, const std::string &text, mode_t mode = 0644)
{
    std::ofstream(path) << text;
    require(chmod(path, mode) == 0, "the scratch root can't be laid out");
}

void make_link(const char *target, const char *path)
{
    require(symlink(target, path) == 0, "the scratch root can't be laid out");
}

void make_folder(const char *path, mode_t mode = 0755)
{
    require(mkdir(path, 0700) == 0 && chmod(path, mode) == 0, "the scratch root can't be laid out");
}

std::string contents(const char *path)
{
    std::array<char, 4096> text{};
    const int fd = open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    const ssize_t got = fd >= 0 ? read(fd, text.data(), text.size()) : 0;
    close(fd);
    return {text.data(), got > 0 ? static_cast<std::size_t>(got) : 0};
}

Found look_at(const std::string &path)
{
    struct stat status {};
    require(lstat(path.c_str(), &status) == 0, "something vanished");
    const bool is_folder = S_ISDIR(status.st_mode);
    const bool runs_for_others =
        (status.st_mode & S_ISUID) != 0 || ((status.st_mode & S_ISGID) != 0 && (status.st_mode & S_IXGRP) != 0);
    require(is_folder || !runs_for_others, "a program with its owner's or group's rights");
    std::string what =
        std::to_string(status.st_mode) + " " + std::to_string(status.st_uid) + " " + std::to_string(status.st_gid);
    if (S_ISREG(status.st_mode)) {
        what += " " + std::to_string(status.st_mtim.tv_sec) + " " + std::to_string(status.st_size) + " " +
                contents(path.c_str());
    } else if (S_ISLNK(status.st_mode)) {
        what += " -> " + fs::read_symlink(path).string();
    }
    return {what, is_folder ? 0 : status.st_nlink};
}

bool is_of_the_group(const std::string &path)
{
    return std::find(of_the_group.begin(), of_the_group.end(), path) != of_the_group.end();
}

void add_below(Picture &picture, const std::string &folder, bool of_group)
{
    for (const fs::directory_entry &entry : fs::directory_iterator(folder)) {
        const std::string path = entry.path().string();
        if (!of_group && is_of_the_group(path)) {
            continue;
        }
        picture[path] = look_at(path);
        if (!entry.is_symlink() && entry.is_directory()) {
            add_below(picture, path, of_group);
        }
    }
}

}  // namespace

// What must stay as it is: files beside the group's, folders whose names begin like theirs, links
// and second names that lead out.
void lay_out_sentinels()
{
    for (const char *folder : {"/etc", "/etc/application", "/etc/links", "/moved", "/moved/data", "/var", "/outside"}) {
        make_folder(folder);
    }
    write_file("/etc/passwd", "root:x:0:0::/:/bin/sh\nuser:x:1000:1000::/:/bin/sh\n");
    write_file("/etc/group", "root:x:0:\nuser:x:1000:\n");
    write_file("/etc/shadow", "root:secret\n", 0600);
    write_file("/etc/application/file", "not the group's\n");
    write_file("/etc/singles", "not the group's\n");
    write_file("/moved/data/other", "not the group's\n");
    write_file("/outside/file", "secret\n", 0600);
    write_file("/outside/twin", "twin\n");
    make_folder("/outside/folder", 0700);
    make_link("/etc/app/one", "/outside/link");
    make_link("moved", "/srv");  // by root: a group's path leads through it
}

void lay_out_group()
{
    for (const char *path : of_the_group) {
        fs::remove_all(path);
    }
    make_folder("/etc/app");
    make_folder("/etc/app/more");
    make_folder("/etc/app/users");
    write_file("/etc/app/one", "one\n");
    write_file("/etc/app/more/two", "two\n", 0600);
    write_file("/etc/single", "single\n");
    write_file("/moved/data/file", "data\n");
    make_link("/outside", "/etc/app/users/way");
    make_link("/outside/file", "/etc/app/users/file");
    require(lchown("/etc/app/users/way", 1000, 1000) == 0 || geteuid() != 0, "a link can't be given away");
    require(link("/outside/twin", "/etc/app/twin") == 0, "a second name can't be made");
    for (const char *path : {"/etc/app/one", "/etc/app/more/two", "/etc/single", "/moved/data/file"}) {
        const std::array<timespec, 2> times{long_ago, long_ago};
        require(utimensat(AT_FDCWD, path, times.data(), 0) == 0, "a file can't be given its time");
    }
}

Picture picture_outside()
{
    Picture picture;
    add_below(picture, "/", false);
    return picture;
}

Picture picture_inside()
{
    Picture picture;
    for (const char *path : of_the_group) {
        struct stat status {};
        if (lstat(path, &status) != 0) {
            continue;
        }
        picture[path] = look_at(path);
        if (S_ISDIR(status.st_mode)) {
            add_below(picture, path, true);
        }
    }
    return picture;
}

}  // namespace fuzz
