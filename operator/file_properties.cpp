#include "file_properties.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <optional>

#include "beneath.h"
#include "failure.h"
#include "group_paths.h"

namespace engine {
namespace {

constexpr mode_t mode_bits = 07777;
constexpr long lowest_mode = 1;
constexpr long highest_mode = 777;

[[noreturn]] void fail_apply(const std::string &path, const std::string &what, const std::string &hint)
{
    throw Failure(Exit::platform, "apply-failed",
                  path + " " + what + "; the files before it in the definition are done.", hint);
}

[[noreturn]] void fail_errno(const std::string &path, const std::string &what)
{
    const int error = errno;
    fail_apply(path, "could not be " + what + ": " + strerror(error), "Mend it, and apply again.");
}

std::string octal(mode_t mode)
{
    char text[8];
    snprintf(text, sizeof(text), "%04o", static_cast<unsigned>(mode & mode_bits));
    return text;
}

// A text is read as the library reads it: a number first, else a name. Nothing: nobody of that
// name.
std::optional<unsigned> wanted_id(const char *text, bool is_user)
{
    const int number = static_cast<int>(strtol(text, nullptr, 10));
    if (number != 0 || strcmp(text, "0") == 0) {
        return static_cast<unsigned>(number);
    }
    if (is_user) {
        const passwd *user = getpwnam(text);
        return user ? std::optional<unsigned>(user->pw_uid) : std::nullopt;
    }
    const ::group *group = getgrnam(text);
    return group ? std::optional<unsigned>(group->gr_gid) : std::nullopt;
}

// The range is that of the decimal reading, what is applied is the octal one: as the library reads
// it.
std::optional<mode_t> wanted_mode(const char *text)
{
    const long as_decimal = strtol(text, nullptr, 10);
    const bool digits = strspn(text, "0123456789") == strlen(text);
    if (!digits || as_decimal < lowest_mode || as_decimal > highest_mode) {
        return std::nullopt;
    }
    return static_cast<mode_t>(strtol(text, nullptr, 8));
}

// ------------------------------------------------------------------------------------ the file

struct Found {
    Descriptor thing;
    struct stat status {};
    bool gone = false;
};

[[noreturn]] void refuse_link(const std::string &path)
{
    throw Failure(Exit::no, "wrong-kind", path + " is, or lies behind, a link that root alone did not make.",
                  "It is not followed. Move it away, or name the real path in the definition.");
}

// A second name may be that of somebody else's file, where others can make names.
void check_names(const std::string &path, const Entry &entry, const struct stat &file)
{
    struct stat folder;
    const bool private_folder = fstat(entry.folder.get(), &folder) == 0 &&
                                (folder.st_uid == 0 || folder.st_uid == geteuid()) &&
                                (folder.st_mode & (S_IWGRP | S_IWOTH)) == 0;
    if (S_ISREG(file.st_mode) && file.st_nlink > 1 && !private_folder) {
        throw Failure(Exit::no, "wrong-kind", path + " has more than one name, and others can write to its folder.",
                      "It may be another file's second name. Copy it, and put the copy in its place.");
    }
}

Found find(const KESTA_BACKUP_FILE_PATH &file, bool may_be_gone)
{
    const Beneath root;
    const std::string path = file.pathname;
    const Entry entry = root.entry(root.settled(path));
    Found found;
    found.thing = entry ? open_plain(entry, found.status) : Descriptor();
    if (!found.thing) {
        const int error = errno;
        if (error == ELOOP || (error == ENOTDIR && !entry)) {
            refuse_link(path);
        }
        if (error == EINVAL) {
            throw Failure(Exit::no, "wrong-kind", path + " is neither a file nor a folder.",
                          "Take it out of the definition, or move it away.");
        }
        if (error == ENOENT && may_be_gone) {
            found.gone = true;
            return found;
        }
        throw Failure(Exit::no, "file-missing", "There is no " + path + ": " + strerror(error) + ".",
                      "Restore it first; only in a group with operation=\"addremove\" may files "
                      "be gone.");
    }
    check_names(path, entry, found.status);
    return found;
}

// ------------------------------------------------------------------------------------ its links

Entry entry_of_link(const std::string &link)
{
    const Beneath root;
    const std::size_t slash = link.rfind('/');
    const std::string folder = slash == std::string::npos ? "" : link.substr(0, slash);
    Entry entry;
    entry.name = link.substr(slash + 1);
    entry.folder = root.open(root.settled(folder), O_PATH | O_DIRECTORY);
    if (!entry && (errno == ELOOP || errno == ENOTDIR)) {
        refuse_link(link);
    }
    return entry;
}

bool points_to(const std::string &link, const std::string &target)
{
    const Entry entry = entry_of_link(link);
    return entry && link_text(entry) == target;
}

void put_link(const std::string &link, const std::string &target)
{
    const Entry entry = entry_of_link(link);
    if (!entry) {
        fail_errno(link, "made a link to " + target);
    }
    struct stat status;
    if (stat_of(entry, status) && S_ISDIR(status.st_mode)) {
        fail_apply(link, "is a folder, and is to be a link to " + target, "Move it away, and apply again.");
    }
    Entry aside{Descriptor(fcntl(entry.folder.get(), F_DUPFD_CLOEXEC, 3)), staged_name(entry.name)};
    (void)remove(aside, aside.name);  // of a run that was cut short; making it tells
    if (!make_link(aside, target) || !take_place(entry, aside.name)) {
        const int error = errno;
        (void)remove(aside, aside.name);  // best effort: the failure is told
        errno = error;
        fail_errno(link, "made a link to " + target);
    }
}

void add_id_change(std::vector<std::string> &changes, const char *what, const char *wanted, unsigned is_now,
                   bool is_user)
{
    const std::optional<unsigned> id = wanted_id(wanted, is_user);
    if (*wanted == '\0' || id == is_now) {
        return;
    }
    changes.push_back(std::string(what) + " " + std::to_string(is_now) + " -> " + wanted +
                      (id ? "" : " (nobody of that name)"));
}

unsigned require_id(const KESTA_BACKUP_FILE_PATH &file, const char *text, bool is_user)
{
    const std::optional<unsigned> id = wanted_id(text, is_user);
    if (!id) {
        fail_apply(file.pathname, std::string("is to belong to ") + text + ", and there is nobody of that name",
                   "Mend its entry, and apply again.");
    }
    return *id;
}

}  // namespace

std::span<const KESTA_BACKUP_FILE_PATH> files_of(const KESTA_BACKUP_FILE &definition)
{
    const std::span<const KESTA_BACKUP_FILE_PATH> all(definition.setfile);
    const auto end = std::find_if(all.begin(), all.end(),
                                  [](const KESTA_BACKUP_FILE_PATH &file) { return file.pathname[0] == '\0'; });
    return all.first(static_cast<std::size_t>(end - all.begin()));
}

std::vector<std::string> property_changes(const KESTA_BACKUP_FILE_PATH &file, bool may_be_gone)
{
    std::vector<std::string> changes;
    const Found found = find(file, may_be_gone);
    if (found.gone) {
        return changes;
    }
    for (const auto &link : file.linkpath) {
        if (link[0] != '\0' && !points_to(link, file.pathname)) {
            changes.push_back("link " + std::string(link));
        }
    }
    add_id_change(changes, "owner", file.owner, found.status.st_uid, true);
    add_id_change(changes, "group", file.group, found.status.st_gid, false);
    const auto mode = static_cast<mode_t>(strtol(file.filemode, nullptr, 8));
    if (file.filemode[0] != '\0' && mode != (found.status.st_mode & mode_bits)) {
        changes.push_back("mode " + octal(found.status.st_mode) + " -> " + octal(mode));
    }
    return changes;
}

void apply_properties(const KESTA_BACKUP_FILE_PATH &file, bool may_be_gone)
{
    constexpr auto unchanged = static_cast<uid_t>(-1);
    const Found found = find(file, may_be_gone);
    if (found.gone) {
        return;
    }
    for (const auto &link : file.linkpath) {
        if (link[0] != '\0' && !points_to(link, file.pathname)) {
            put_link(link, file.pathname);
        }
    }
    if (file.owner[0] != '\0' && !set_owner(found.thing, require_id(file, file.owner, true), unchanged)) {
        fail_errno(file.pathname, "given to its owner");
    }
    if (file.group[0] != '\0' && !set_owner(found.thing, unchanged, require_id(file, file.group, false))) {
        fail_errno(file.pathname, "given to its group");
    }
    if (file.filemode[0] == '\0') {
        return;
    }
    const std::optional<mode_t> mode = wanted_mode(file.filemode);
    if (!mode) {
        fail_apply(file.pathname, std::string("is to have the mode ") + file.filemode + ", which is none",
                   "A mode has digits only, and is from 1 to 777. Mend its entry, and apply again.");
    }
    if (!set_mode(found.thing, *mode)) {
        fail_errno(file.pathname, "given its mode");
    }
}

std::string fault_of_user(const std::string &user)
{
    return wanted_id(user.c_str(), true) ? "" : "is no user of this controller";
}

std::string fault_of_group(const std::string &group)
{
    return wanted_id(group.c_str(), false) ? "" : "is no group of this controller";
}

std::string fault_of_mode(const std::string &mode)
{
    return wanted_mode(mode.c_str()) ? "" : "is no mode: 1 to 777, in octal digits";
}

}  // namespace engine
