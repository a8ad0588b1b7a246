#include "saved_files.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "failure.h"
#include "group_definition.h"
#include "whole_file.h"

namespace engine {
namespace {

namespace fs = std::filesystem;

constexpr mode_t permissions = 07777;

MemberKind kind_of(mode_t mode)
{
    return S_ISREG(mode)   ? MemberKind::file
           : S_ISDIR(mode) ? MemberKind::folder
           : S_ISLNK(mode) ? MemberKind::link
                           : MemberKind::special;
}

// The names of owners and groups, each number asked for once.
class Names {
public:
    const std::string &of_owner(uid_t uid)
    {
        const auto [at, is_new] = owners_.try_emplace(uid);
        if (const passwd *owner = is_new ? getpwuid(uid) : nullptr) {
            at->second = owner->pw_name;
        }
        return at->second;
    }
    const std::string &of_group(gid_t gid)
    {
        const auto [at, is_new] = groups_.try_emplace(gid);
        if (const ::group *group = is_new ? getgrgid(gid) : nullptr) {
            at->second = group->gr_name;
        }
        return at->second;
    }

private:
    std::map<uid_t, std::string> owners_;
    std::map<gid_t, std::string> groups_;
};

Member member_from(const std::string &path, const struct stat &status, Names &names)
{
    Member member;
    member.path = path;
    member.kind = kind_of(status.st_mode);
    member.mode = status.st_mode & permissions;
    member.owner = names.of_owner(status.st_uid);
    member.group = names.of_group(status.st_gid);
    member.uid = status.st_uid;
    member.gid = status.st_gid;
    member.modified = status.st_mtim;
    member.size = S_ISREG(status.st_mode) ? static_cast<std::uint64_t>(status.st_size) : 0;
    return member;
}

std::vector<std::string> names_in(const Descriptor &folder, const std::string &path)
{
    // The stream owns a descriptor of its own, with a place of its own.
    const int fd = openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR *)> stream(fd < 0 ? nullptr : fdopendir(fd), closedir);
    if (!stream) {
        fail_file("/" + path, "read");
    }
    std::vector<std::string> found;
    errno = 0;
    while (const dirent *entry = readdir(stream.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            found.push_back(name);
        }
    }
    if (errno != 0) {
        fail_file("/" + path, "read");
    }
    std::sort(found.begin(), found.end());
    return found;
}

class Walk {
public:
    Walk(const KESTA_BACKUP_FILE &definition, const GroupPaths &paths, const VisitSaved &visit)
        : definition_(definition), paths_(paths), places_(paths), visit_(visit)
    {
    }

    void walk()
    {
        std::vector<std::string> there;
        for (const std::string &path : paths_.all()) {
            if (is_there(path)) {
                there.push_back(path);
            }
        }
        for (const std::string &path : there) {
            visit_parents(path);
        }
        for (const std::string &path : there) {
            visit_entry(places_.entry(path), path);
        }
    }

private:
    bool is_there(const std::string &path) const
    {
        struct stat status;
        const Entry entry = places_.entry(path);
        if (entry && stat_of(entry, status)) {
            return true;
        }
        if (errno == ENOENT && may_be_gone(definition_)) {
            return false;
        }
        throw Failure(Exit::no, "file-missing", "There is no /" + path + ": " + strerror(errno) + ".",
                      "The group names it: put it back, or take it out of the definition. Only in "
                      "a group with operation=\"addremove\" may files be gone.");
    }

    void visit_parents(const std::string &path)
    {
        fs::path way;
        for (const fs::path &part : fs::path(path).parent_path()) {
            way /= part;
            if (paths_.contains(way.string()) || !visited_.insert(way.string()).second) {
                continue;
            }
            struct stat status;
            const Descriptor folder = places_.root().open(places_.root().settled(way.string()), O_RDONLY | O_DIRECTORY);
            if (!folder || fstat(folder.get(), &status) != 0) {
                fail_file("/" + way.string(), "looked at");
            }
            visit_(member_from(way.string(), status, names_), folder);
        }
    }

    void visit_entry(const Entry &entry, const std::string &path)
    {
        if (!visited_.insert(path).second) {
            return;
        }
        struct stat status;
        if (!stat_of(entry, status)) {
            fail_file("/" + path, "looked at");
        }
        if (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) {
            const Descriptor opened = open_plain(entry, status);
            if (!opened) {
                fail_file("/" + path, "opened");
            }
            visit_opened(opened, member_from(path, status, names_), status);
            return;
        }
        Member member = member_from(path, status, names_);
        member.target = link_text(entry).value_or("");
        require_restorable(member);
        visit_(member, Descriptor());
    }

    void visit_opened(const Descriptor &opened, Member member, const struct stat &status)
    {
        if (member.kind == MemberKind::file && status.st_nlink > 1) {
            const auto [first, is_new] = first_names_.emplace(std::pair(status.st_dev, status.st_ino), member.path);
            if (!is_new) {
                member.kind = MemberKind::hard_link;
                member.target = first->second;
                member.size = 0;
            }
        }
        require_restorable(member);
        visit_(member, opened);
        if (member.kind != MemberKind::folder) {
            return;
        }
        for (const std::string &name : names_in(opened, member.path)) {
            const Entry child{Descriptor(fcntl(opened.get(), F_DUPFD_CLOEXEC, 3)), name};
            visit_entry(child, member.path + "/" + name);
        }
    }

    // What is restored is written to the group's own paths only: a link must lead to one of them.
    void require_restorable(const Member &member) const
    {
        const std::string fault = paths_.fault_of(member);
        if (!fault.empty()) {
            throw Failure(Exit::no, "not-restorable", "/" + member.path + " " + fault + ".",
                          "It could not be restored. Take it out of the folder or the definition; "
                          "what a link "
                          "leads to has to be the group's as well, and links that the definition "
                          "makes itself are "
                          "no files of it.");
        }
    }

    const KESTA_BACKUP_FILE &definition_;
    const GroupPaths &paths_;
    GroupPlaces places_;
    Names names_;
    const VisitSaved &visit_;
    std::set<std::string> visited_;
    std::map<std::pair<dev_t, ino_t>, std::string> first_names_;
};

}  // namespace

Member saved_member(const std::string &path, const struct stat &status)
{
    static Names names;
    return member_from(path, status, names);
}

void for_each_saved(const KESTA_BACKUP_FILE &definition, const GroupPaths &paths, const VisitSaved &visit)
{
    Walk(definition, paths, visit).walk();
}

}  // namespace engine
