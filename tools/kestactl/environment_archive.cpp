#include "environment_archive.h"

#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "failure.h"
#include "group_definition.h"
#include "whole_file.h"

extern char **environ;

namespace kestactl {
namespace {

namespace fs = std::filesystem;

constexpr const char *tar = "/usr/sbin/tar";

class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd()
    {
        if (fd_ >= 0) {
            (void)close(fd_);  // nothing was written to it
        }
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

void add_parents(ArchiveContents &contents, const fs::path &relative)
{
    fs::path parent;
    for (const fs::path &part : relative.parent_path()) {
        parent /= part;
        const std::string name = parent.string();
        if (std::find(contents.parents.begin(), contents.parents.end(), name) ==
            contents.parents.end()) {
            contents.parents.push_back(name);
        }
    }
}

enum class Output { shown, dropped };

// Runs a program with a list of names on its standard input. Whether it ended well.
bool run(std::vector<std::string> words, const std::vector<std::string> &names, Output output)
{
    const Fd list(memfd_create("names", MFD_CLOEXEC));
    std::string text;
    for (const std::string &name : names) {
        text += name + '\0';
    }
    if (list.get() < 0 ||
        write(list.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        lseek(list.get(), 0, SEEK_SET) != 0) {
        fail_file("A list of names", "made");
    }
    std::vector<char *> arguments;
    for (std::string &word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, list.get(), STDIN_FILENO);
    if (output == Output::shown) {
        posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    }
    pid_t child = -1;
    const int error =
        posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw Failure(Exit::platform, "not-started",
                      words[0] + " can't be run: " + strerror(error) + ".", "Is it installed?");
    }
    int status = -1;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status == 0;
}

// What is restored is written to the group's own paths only: a link must lead to one of them.
void check_links(const fs::path &path, const ArchiveContents &contents)
{
    const auto check = [&contents](const fs::path &link) {
        const std::string destination =
            link_destination(link.string(), fs::read_symlink(link).string());
        const bool within = std::any_of(contents.files.begin(), contents.files.end(),
                                        [&destination](const std::string &file) {
                                            return is_within(destination, file);
                                        });
        if (!within) {
            throw Failure(Exit::no, "link-leads-out",
                          "The link " + link.string() + " leads out of the group, to /" + destination + ".",
                          "It could not be restored. Put what it leads to into the definition as well, or "
                          "take the link out; links that the definition makes itself are no files of it.");
        }
    };
    if (fs::is_symlink(path)) {
        check(path);
    } else if (fs::is_directory(path)) {
        for (const fs::directory_entry &entry : fs::recursive_directory_iterator(path)) {
            if (entry.is_symlink()) {
                check(entry.path());
            }
        }
    }
}

}  // namespace

bool is_within(const std::string &path, const std::string &folder)
{
    return path == folder || (path.starts_with(folder) && path[folder.size()] == '/');
}

std::string link_destination(const std::string &link, const std::string &target)
{
    std::string destination =
        (fs::path(link).parent_path() / target).lexically_normal().relative_path().string();
    if (destination.ends_with('/')) {
        destination.pop_back();
    }
    return destination;
}

void check_file_path(const std::string &text)
{
    const fs::path path = text;
    const bool plain = path.is_absolute() && path.lexically_normal() == path &&
                       path.has_relative_path() && path.has_filename();
    if (!plain) {
        throw Failure(Exit::no, "bad-path",
                      "The definition names '" + text + "', which can't be archived.",
                      "Paths are absolute, without '..', '.' or a slash at the end: mend the "
                      "definition, 'kestactl group check' shows the line.");
    }
}

ArchiveContents collect(const KESTA_BACKUP_FILE &definition)
{
    ArchiveContents contents;
    for (const KESTA_BACKUP_FILE_PATH &file : definition.setfile) {
        if (file.pathname[0] == '\0') {
            break;
        }
        const fs::path path = file.pathname;
        check_file_path(path.string());
        struct stat status;
        if (lstat(path.c_str(), &status) != 0) {
            if (errno == ENOENT && may_be_gone(definition)) {
                continue;
            }
            throw Failure(Exit::no, "file-missing",
                          "There is no " + path.string() + ": " + strerror(errno) + ".",
                          "The group names it: put it back, or take it out of the definition. Only in "
                          "a group with operation=\"addremove\" may files be gone.");
        }
        add_parents(contents, path.relative_path());
        contents.files.push_back(path.relative_path().string());
    }
    if (contents.files.empty()) {
        throw Failure(Exit::no, "no-files", "The group has no files to save.",
                      "See 'kestactl group show'.");
    }
    for (const std::string &file : contents.files) {
        check_links("/" + file, contents);
    }
    return contents;
}

void make_archive(const ArchiveContents &contents, const std::string &path)
{
    // Parents first, without what is in them.
    std::vector<std::string> words{tar, "-C", "/", "-cjf", path, "--no-recursion"};
    for (const std::string &parent : contents.parents) {
        words.push_back("--add-file=" + parent);
    }
    words.emplace_back("--recursion");
    for (const std::string &file : contents.files) {
        words.push_back("--add-file=" + file);
    }
    if (!run(words, {}, Output::shown)) {
        remove_quietly(path);
        throw Failure(Exit::platform, "archive-failed", "The archive could not be made.",
                      "What tar said stands above; check the space of " +
                          fs::path(path).parent_path().string() + ".");
    }
    if (!is_whole_archive(path) ||
        !run({tar, "-C", "/", "--null", "-T", "-", "-djf", path}, contents.files, Output::shown)) {
        remove_quietly(path);
        throw Failure(Exit::platform, "archive-differs",
                      "The archive does not hold what the files hold: it was thrown away.",
                      "A file was changed while it was saved, or the disk fails: run the command "
                      "again.");
    }
    flush_file(path);
}

bool is_whole_archive(const std::string &path)
{
    return run({"/usr/bin/bunzip2", "-tq", path}, {}, Output::dropped) &&
           run({tar, "-tjf", path}, {}, Output::dropped);
}

std::string read_slot(const std::string &slot)
{
    void *data = nullptr;
    unsigned size = 0;
    const int result = kestal_backup_rw(slot.c_str(), KESTA_FILE_READ, &data, &size);
    std::string bytes;
    if (result == KESTA_OK) {
        bytes.assign(static_cast<const char *>(data), size);
    }
    kestal_free_debug(data, __FILE__, __LINE__, 0);
    if (result != KESTA_OK) {
        throw Failure(Exit::platform, "slot-unreadable", "Slot " + slot + " can't be read.",
                      "Check the system backup area; --trace 1 shows the failed call.");
    }
    return bytes;
}

}  // namespace kestactl
