#include "restored_files.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

#include "environment_archive.h"
#include "failure.h"
#include "group_definition.h"
#include "whole_file.h"

namespace kestactl {
namespace {

namespace fs = std::filesystem;

std::string absolute(const Member &member) { return "/" + member.path; }

// The paths of a definition that count: relative ones, as archives have them.
class Paths {
public:
    Paths(const KESTA_BACKUP_FILE &definition, const std::string &only)
    {
        for (const KESTA_BACKUP_FILE_PATH &file : definition.setfile) {
            if (file.pathname[0] == '\0') {
                break;
            }
            check_file_path(file.pathname);
            all_.push_back(file.pathname + 1);
        }
        if (only.empty()) {
            wanted_ = all_;
            return;
        }
        const bool is_plain = fs::path(only).is_absolute() &&
                              fs::path(only).lexically_normal() == fs::path(only);
        const std::string path = is_plain ? only.substr(1) : "";
        for (const std::string &known : all_) {
            if (is_within(path, known)) {
                wanted_.push_back(path);
                return;
            }
        }
        throw Failure(Exit::no, "not-of-the-group", "The group has no path " + only + ".",
                      "--only takes one of its paths, or one below them: see 'kestactl group show'.");
    }

    const std::vector<std::string> &wanted() const { return wanted_; }
    bool wants(const std::string &path) const { return any_of(wanted_, path); }
    bool contains(const std::string &path) const { return any_of(all_, path); }
    bool leads_to_wanted(const std::string &path) const
    {
        return std::any_of(wanted_.begin(), wanted_.end(), [&path](const std::string &wanted) {
            return is_within(wanted, path);
        });
    }

private:
    static bool any_of(const std::vector<std::string> &paths, const std::string &path)
    {
        return std::any_of(paths.begin(), paths.end(),
                           [&path](const std::string &known) { return is_within(path, known); });
    }

    std::vector<std::string> all_;
    std::vector<std::string> wanted_;
};

[[noreturn]] void refuse(const std::string &archive, const std::string &what)
{
    throw Failure(Exit::no, "unsafe-archive", archive + " " + what + ": nothing was taken from it.",
                  "It was not made by 'kestactl save'. Restore the other environment with --from, or save "
                  "this controller's again.");
}

void check_name(const Member &member, const std::string &archive)
{
    const fs::path path = member.path;
    const bool climbs = std::find(path.begin(), path.end(), "..") != path.end();
    if (member.path.empty() || path.is_absolute() || climbs) {
        refuse(archive, "holds the name '" + member.path + "', which is not below the root");
    }
}

// A link of a group leads to a path of the group.
void check_link(const Member &member, const Paths &paths, const std::string &archive)
{
    if (member.kind == MemberKind::special) {
        refuse(archive, "holds '" + member.path + "', which is neither a file nor a folder nor a link");
    }
    if (member.kind == MemberKind::hard_link && !paths.wants(member.target)) {
        refuse(archive, "holds '" + member.path + "' as another name of '" + member.target +
                            "', which is not restored with it");
    }
    if (member.kind == MemberKind::link && !paths.contains(link_destination(absolute(member), member.target))) {
        refuse(archive, "holds the link '" + member.path + "', which leads out of the group to '" +
                            member.target + "'");
    }
}

// ------------------------------------------------------------------------------- what there is now

struct Present {
    bool exists = false;
    struct stat status {};
};

Present look_at(const std::string &path)
{
    Present present;
    present.exists = lstat(path.c_str(), &present.status) == 0;
    if (!present.exists && errno != ENOENT) {
        fail_file(path, "looked at");
    }
    return present;
}

[[noreturn]] void refuse_place(const std::string &path, const std::string &why)
{
    throw Failure(Exit::no, "wrong-kind", path + " " + why + ": nothing was changed.",
                  "Move it away, then run the command again.");
}

// The way to a path has folders, or links that only root can have made.
void check_way(const std::string &path)
{
    fs::path way = "/";
    for (const fs::path &part : fs::path(path).parent_path().relative_path()) {
        way /= part;
        const Present present = look_at(way.string());
        if (!present.exists) {
            return;  // made when it is needed
        }
        const bool own_link = S_ISLNK(present.status.st_mode) && present.status.st_uid == geteuid();
        if (!S_ISDIR(present.status.st_mode) && !(own_link && fs::is_directory(way))) {
            refuse_place(way.string(), "is no folder of root's, and " + path + " is to be below it");
        }
    }
}

mode_t type_of(MemberKind kind)
{
    return kind == MemberKind::folder ? S_IFDIR : kind == MemberKind::link ? S_IFLNK : S_IFREG;
}

std::string link_target(const std::string &path)
{
    std::error_code error;
    return fs::read_symlink(path, error).string();
}

bool same_contents(const Member &member, const Present &present, const ReadMember &read)
{
    const std::string path = absolute(member);
    if (!present.exists || (present.status.st_mode & S_IFMT) != type_of(member.kind)) {
        return false;
    }
    switch (member.kind) {
    case MemberKind::folder:
        return true;
    case MemberKind::link:
        return link_target(path) == member.target;
    case MemberKind::hard_link: {
        const Present other = look_at("/" + member.target);
        return other.exists && other.status.st_ino == present.status.st_ino &&
               other.status.st_dev == present.status.st_dev;
    }
    default:
        return read() == read_whole_file(path);
    }
}

bool same_properties(const Member &member, const Present &present)
{
    constexpr mode_t permissions = 07777;
    return present.status.st_uid == owner_of(member) && present.status.st_gid == group_of(member) &&
           (member.kind == MemberKind::link ||
            (present.status.st_mode & permissions) == (member.mode & permissions));
}

// ------------------------------------------------------------------------------------- the writing

void set_properties(const std::string &path, const Member &member)
{
    const timespec times[2] = {member.modified, member.modified};
    if (lchown(path.c_str(), owner_of(member), group_of(member)) != 0) {
        fail_file(path, "given to its owner");
    }
    if (member.kind == MemberKind::link) {
        return;
    }
    if (chmod(path.c_str(), member.mode) != 0) {
        fail_file(path, "given its mode");
    }
    if (member.kind == MemberKind::file && utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) {
        fail_file(path, "given its time");
    }
}

void make_folder(const std::string &path, const Member *recorded)
{
    if (mkdir(path.c_str(), 0755) != 0) {
        fail_file(path, "made");
    }
    if (recorded) {
        set_properties(path, *recorded);
    }
}

// A folder as the archive recorded it; null if it did not.
const Member *recorded_folder(const std::string &path, const RestoredFiles &files)
{
    for (const std::vector<Member> *members : {&files.parents, &files.members}) {
        const auto found =
            std::find_if(members->begin(), members->end(),
                         [&path](const Member &member) { return absolute(member) == path; });
        if (found != members->end()) {
            return &*found;
        }
    }
    return nullptr;
}

// With the owners and modes that the archive recorded, where it did.
void make_way(const std::string &path, const RestoredFiles &files)
{
    fs::path way = "/";
    for (const fs::path &part : fs::path(path).parent_path().relative_path()) {
        way /= part;
        if (!look_at(way.string()).exists) {
            make_folder(way.string(), recorded_folder(way.string(), files));
        }
    }
}

void write_staged(const std::string &staged, const std::string &bytes)
{
    const int fd = open(staged.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    bool whole = fd >= 0;
    for (std::size_t at = 0; whole && at < bytes.size();) {
        const ssize_t put = write(fd, bytes.data() + at, bytes.size() - at);
        whole = put > 0;
        at += whole ? static_cast<std::size_t>(put) : 0;
    }
    whole = whole && fsync(fd) == 0;
    int error = errno;
    if (fd >= 0 && close(fd) != 0 && whole) {
        whole = false;
        error = errno;
    }
    if (!whole) {
        errno = error;
        fail_file(staged, "written");
    }
}

void stage(const Member &member, const RestoredFiles &files, const ReadMember &read)
{
    const std::string path = absolute(member);
    const std::string staged = staged_path(path);
    make_way(path, files);
    remove_quietly(staged);  // of a run that was cut short
    if (member.kind == MemberKind::link) {
        if (symlink(member.target.c_str(), staged.c_str()) != 0) {
            fail_file(staged, "made");
        }
    } else {
        write_staged(staged, read());
    }
    set_properties(staged, member);
}

void place(const Member &member)
{
    const std::string path = absolute(member);
    if (member.kind == MemberKind::folder) {
        if (!look_at(path).exists) {
            make_folder(path, &member);
        }
        return;
    }
    const std::string staged = staged_path(path);
    if (member.kind == MemberKind::hard_link) {
        remove_quietly(staged);
        if (link(("/" + member.target).c_str(), staged.c_str()) != 0) {
            fail_file(path, "made a second name of /" + member.target);
        }
    }
    if (rename(staged.c_str(), path.c_str()) != 0) {
        fail_file(path, "replaced");
    }
}

void flush_folders(const FileChanges &changes)
{
    std::set<std::string> folders;
    for (const std::set<std::string> *paths : {&changes.replaced, &changes.removed}) {
        for (const std::string &path : *paths) {
            folders.insert(fs::path(path).parent_path().string());
        }
    }
    for (const std::string &folder : folders) {
        flush_folder(folder);
    }
}

}  // namespace

RestoredFiles choose_files(const std::string &archive, const std::string &name,
                           const KESTA_BACKUP_FILE &definition, const std::string &only)
{
    const Paths paths(definition, only);
    RestoredFiles files;
    std::map<std::string, std::size_t> known;
    for_each_member(archive, name, [&](const Member &member, const ReadMember &) {
        if (member.path == ".") {
            return;  // the root itself
        }
        check_name(member, name);
        if (!paths.wants(member.path)) {
            if (member.kind == MemberKind::folder && paths.leads_to_wanted(member.path)) {
                files.parents.push_back(member);
            } else {
                ++files.foreign;
            }
            return;
        }
        check_link(member, paths, name);
        const auto [at, is_new] = known.emplace(member.path, files.members.size());
        if (is_new) {
            files.members.push_back(member);
        } else if (member.target != member.path) {
            files.members[at->second] = member;  // the later one counts
        }
    });
    for (const std::string &wanted : paths.wanted()) {
        const bool there = std::any_of(
            files.members.begin(), files.members.end(),
            [&wanted](const Member &member) { return is_within(member.path, wanted); });
        if (!there && !may_be_gone(definition)) {
            throw Failure(Exit::no, "not-in-archive",
                          name + " has no /" + wanted + ": nothing was changed.",
                          "The definition is newer than the archive. Restore other paths with --only, or "
                          "save the group again.");
        }
        if (!there) {
            files.removed.push_back("/" + wanted);
        }
    }
    return files;
}

FileChanges compare_files(const std::string &archive, const std::string &name,
                          const RestoredFiles &files)
{
    std::map<std::string, const Member *> wanted;
    for (const Member &member : files.members) {
        wanted[member.path] = &member;
    }
    FileChanges changes;
    for_each_member(archive, name, [&](const Member &visited, const ReadMember &read) {
        const auto found = wanted.find(visited.path);
        if (found == wanted.end() || found->second->kind != visited.kind) {
            return;
        }
        const std::string path = absolute(visited);
        check_way(path);
        const Present present = look_at(path);
        const bool is_folder = present.exists && S_ISDIR(present.status.st_mode);
        if (present.exists && is_folder != (visited.kind == MemberKind::folder)) {
            refuse_place(path, is_folder ? "is a folder here, and no folder in the archive"
                                         : "is no folder here, and a folder in the archive");
        }
        changes.replaced.erase(path);  // the later one of a name counts
        changes.adjusted.erase(path);
        // A second name of a file that is replaced would keep the old one.
        const bool follows = visited.kind == MemberKind::hard_link &&
                             changes.replaced.contains("/" + visited.target);
        if (follows || !same_contents(visited, present, read)) {
            changes.replaced.insert(path);
        } else if (!same_properties(*found->second, present)) {
            changes.adjusted.insert(path);
        }
    });
    for (const std::string &path : files.removed) {
        const Present present = look_at(path);
        if (present.exists && S_ISDIR(present.status.st_mode)) {
            refuse_place(path, "is a folder here, and was gone when the environment was saved");
        }
        if (present.exists) {
            changes.removed.insert(path);
        }
    }
    return changes;
}

std::string staged_path(const std::string &path)
{
    const fs::path whole = path;
    return (whole.parent_path() / ("." + whole.filename().string() + ".kesta-new")).string();
}

void stage_files(const std::string &archive, const std::string &name, const RestoredFiles &files,
                 const FileChanges &changes)
{
    try {
        for_each_member(archive, name, [&](const Member &member, const ReadMember &read) {
            const bool staged = member.kind == MemberKind::file || member.kind == MemberKind::link;
            if (staged && changes.replaced.contains(absolute(member))) {
                stage(member, files, read);
            }
        });
    } catch (const Failure &) {
        remove_staged(changes.replaced);
        throw;
    }
}

void place_files(const RestoredFiles &files, const FileChanges &changes)
{
    for (const Member &member : files.members) {
        const std::string path = absolute(member);
        if (changes.replaced.contains(path)) {
            make_way(path, files);
            place(member);
        } else if (changes.adjusted.contains(path)) {
            set_properties(path, member);
        }
    }
    for (const std::string &path : changes.removed) {
        if (unlink(path.c_str()) != 0 && errno != ENOENT) {
            fail_file(path, "removed");
        }
    }
    flush_folders(changes);
}

void remove_staged(const std::set<std::string> &paths)
{
    for (const std::string &path : paths) {
        remove_quietly(staged_path(path));
    }
}

}  // namespace kestactl
