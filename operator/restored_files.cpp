#include "restored_files.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "failure.h"
#include "group_definition.h"
#include "whole_file.h"

namespace engine {
namespace {

// ------------------------------------------------------------------------------- what is chosen

class Choice {
public:
    Choice(const Archive &archive, const GroupPaths &paths) : archive_(archive), paths_(paths) {}

    void visit(const Member &member)
    {
        if (member.path == ".") {
            return;  // the root itself
        }
        if (!paths_.contains(member.path)) {
            visit_other(member);
            return;
        }
        const std::string fault = paths_.fault_of(member);
        if (!fault.empty()) {
            refuse("holds '" + member.path + "', which " + fault);
        }
        const auto before = contents_.find(member.path);
        if (before != contents_.end() && member.target == member.path) {
            return;  // named twice when it was made
        }
        const std::size_t contents = contents_of(member);
        kinds_[member.path] = member.kind;
        contents_[member.path] = contents;
        if (member.kind == MemberKind::file) {
            sizes_[contents] = member.size;
        }
        if (!paths_.wants(member.path)) {
            ++files_.foreign;
            return;
        }
        const auto [at, is_new] = chosen_.emplace(member.path, files_.members.size());
        if (is_new) {
            files_.members.push_back({});
        }
        files_.members[at->second] = {member, contents};  // the later one counts
    }

    RestoredFiles finish()
    {
        check_folders();
        for (const RestoredFile &file : files_.members) {
            if (file.member.kind == MemberKind::folder) {
                files_.folders.insert_or_assign(file.member.path, file.member);
            }
        }
        settle_names();
        return std::move(files_);
    }

private:
    [[noreturn]] void refuse(const std::string &what) const
    {
        throw Failure(Exit::no, "unsafe-archive", archive_.name + " " + what + ": nothing was taken from it.",
                      "It was not made by 'kestactl save'. Restore the other environment with "
                      "--from, or save "
                      "this controller's again.");
    }

    void visit_other(const Member &member)
    {
        Member named = member;
        named.kind = MemberKind::folder;  // what it is does not matter: it is left alone
        const std::string fault = paths_.fault_of(named);
        if (!fault.empty()) {
            refuse("holds the name '" + member.path + "', which " + fault);
        }
        if (!paths_.leads_to_wanted(member.path)) {
            ++files_.foreign;
            return;
        }
        kinds_[member.path] = member.kind;
        if (member.kind == MemberKind::folder) {
            files_.folders.insert_or_assign(member.path, member);
        }
    }

    // A second name has the contents of the file whose name came before.
    std::size_t contents_of(const Member &member) const
    {
        if (member.kind != MemberKind::hard_link) {
            return member.number;
        }
        const auto kind = kinds_.find(member.target);
        if (kind == kinds_.end() ||
            (kind->second != MemberKind::file && kind->second != MemberKind::hard_link)) {
            refuse("holds '" + member.path + "' as another name of '" + member.target +
                   "', which is no file of the group that came before");
        }
        return contents_.at(member.target);
    }

    // In the order of names, what is below a member comes first of all that begins with its name
    // and a slash.
    void check_folders() const
    {
        for (const auto &[path, kind] : kinds_) {
            const auto below = kinds_.lower_bound(path + "/");
            if (kind != MemberKind::folder && below != kinds_.end() && below->first.starts_with(path + "/")) {
                refuse("holds '" + below->first + "' below '" + path + "', which is no folder");
            }
        }
    }

    // Names of one file are made so again where the file itself is restored; otherwise the first of
    // them becomes the file.
    void settle_names()
    {
        std::map<std::size_t, std::string> first;
        for (const RestoredFile &file : files_.members) {
            if (file.member.kind == MemberKind::file) {
                first[file.contents] = file.member.path;
            }
        }
        for (RestoredFile &file : files_.members) {
            if (file.member.kind != MemberKind::hard_link) {
                continue;
            }
            const auto [known, is_first] = first.emplace(file.contents, file.member.path);
            file.member.target = known->second;
            file.member.kind = is_first ? MemberKind::file : MemberKind::hard_link;
            file.member.size = sizes_.at(file.contents);
        }
    }

    const Archive &archive_;
    const GroupPaths &paths_;
    RestoredFiles files_;
    std::map<std::string, std::size_t> chosen_;    // where they stand in the list
    std::map<std::string, MemberKind> kinds_;      // of the group's members, and what leads to them
    std::map<std::string, std::size_t> contents_;  // of the group's members, by number
    std::map<std::size_t, std::uint64_t> sizes_;
};

// ------------------------------------------------------------------------------- what differs

[[noreturn]] void refuse_place(const std::string &path, const std::string &why)
{
    throw Failure(Exit::no, "wrong-kind", path + " " + why + ": nothing was changed.",
                  "Move it away, then run the command again.");
}

struct Present {
    Entry entry;
    bool exists = false;
    struct stat status {};
};

Present look_at(const std::string &path, const GroupPlaces &places)
{
    Present present;
    present.entry = places.entry(path);
    present.exists = present.entry && stat_of(present.entry, present.status);
    if (present.entry && !present.exists && errno != ENOENT) {
        fail_file("/" + path, "looked at");
    }
    return present;
}

bool is_folder(const Present &present) { return present.exists && S_ISDIR(present.status.st_mode); }

bool is_zeros(std::string_view text) { return text.find_first_not_of('\0') == std::string_view::npos; }

// Holds a file against pieces of contents, in their order.
class Comparison {
public:
    explicit Comparison(int fd) : fd_(fd) {}

    void take(std::uint64_t offset, std::string_view piece)
    {
        skip_to(offset);
        while (same_ && !piece.empty()) {
            const std::string_view own = read(piece.size());
            same_ = !own.empty() && piece.starts_with(own);
            piece.remove_prefix(same_ ? own.size() : 0);
        }
    }
    bool ends_at(std::uint64_t size)
    {
        skip_to(size);
        return same_ && read(1).empty();
    }

private:
    void skip_to(std::uint64_t offset)
    {
        while (same_ && at_ < offset) {
            const std::string_view own = read(offset - at_);
            same_ = !own.empty() && is_zeros(own);
        }
    }
    std::string_view read(std::uint64_t most)
    {
        const std::size_t size = std::min<std::uint64_t>(most, piece_.size());
        ssize_t got;
        while ((got = pread(fd_, piece_.data(), size, static_cast<off_t>(at_))) < 0 && errno == EINTR) {
        }
        at_ += got > 0 ? static_cast<std::uint64_t>(got) : 0;
        return {piece_.data(), got > 0 ? static_cast<std::size_t>(got) : 0};
    }

    int fd_;
    bool same_ = true;
    std::uint64_t at_ = 0;
    std::array<char, 1 << 16> piece_{};
};

class Changes {
public:
    Changes(FileChanges &changes, const GroupPlaces &places) : changes_(changes), places_(places) {}

    void compare_file(const RestoredFile &file, const ReadMember &read)
    {
        const Present present = require_place(file);
        if (!present.exists || !S_ISREG(present.status.st_mode) ||
            static_cast<std::uint64_t>(present.status.st_size) != file.member.size) {
            changes_.replaced.insert(file.path());
            return;
        }
        struct stat status;
        const Descriptor fd = open_plain(present.entry, status);
        if (!fd) {
            fail_file(file.path(), "opened");
        }
        Comparison comparison(fd.get());
        read([&comparison](std::uint64_t offset, std::string_view piece) { comparison.take(offset, piece); });
        if (!comparison.ends_at(file.member.size)) {
            changes_.replaced.insert(file.path());
            return;
        }
        changes_.known.insert_or_assign(file.path(), FileNumber(status));
        // Through another name somebody else's file would be given away: it gets a file of its own.
        const bool same = same_properties(file.member, status);
        if (!same && status.st_nlink != 1) {
            changes_.replaced.insert(file.path());
        } else if (!same) {
            changes_.adjusted.insert(file.path());
        }
    }

    void compare_other(const RestoredFile &file)
    {
        const Present present = require_place(file);
        const Member &member = file.member;
        const std::string path = file.path();
        if (!present.exists || !is_same(file, present)) {
            changes_.replaced.insert(path);
            return;
        }
        changes_.known.insert_or_assign(path, FileNumber(present.status));
        if (member.kind != MemberKind::hard_link && !same_properties(member, present.status)) {
            changes_.adjusted.insert(path);
        }
    }

private:
    Present require_place(const RestoredFile &file) const
    {
        Present present = look_at(file.member.path, places_);
        if (present.exists && is_folder(present) != (file.member.kind == MemberKind::folder)) {
            refuse_place(file.path(), is_folder(present) ? "is a folder here, and no folder in the archive"
                                                         : "is no folder here, and a folder in the archive");
        }
        return present;
    }

    bool is_same(const RestoredFile &file, const Present &present) const
    {
        if (file.member.kind == MemberKind::folder) {
            return true;
        }
        if (file.member.kind == MemberKind::link) {
            return S_ISLNK(present.status.st_mode) && link_text(present.entry) == file.member.target;
        }
        // A second name of a file that is replaced would keep the old one.
        const std::string first = "/" + file.member.target;
        const auto known = changes_.known.find(first);
        return !changes_.replaced.contains(first) && known != changes_.known.end() &&
               known->second == FileNumber(present.status);
    }

    static bool same_properties(const Member &member, const struct stat &status)
    {
        constexpr mode_t permissions = 07777;
        return status.st_uid == owner_of(member) && status.st_gid == group_of(member) &&
               (member.kind == MemberKind::link ||
                (status.st_mode & permissions) == (member.mode & permissions));
    }

    FileChanges &changes_;
    const GroupPlaces &places_;
};

}  // namespace

RestoredFiles choose_files(const Archive &archive, const KESTA_BACKUP_FILE &definition,
                           const GroupPaths &paths)
{
    Choice choice(archive, paths);
    for_each_member(archive, [&choice](const Member &member, const ReadMember &) { choice.visit(member); });
    RestoredFiles files = choice.finish();
    for (const std::string &wanted : paths.wanted()) {
        const bool there =
            std::any_of(files.members.begin(), files.members.end(),
                        [&wanted](const RestoredFile &file) { return is_within(file.member.path, wanted); });
        if (!there && !may_be_gone(definition)) {
            throw Failure(Exit::no, "not-in-archive",
                          archive.name + " has no /" + wanted + ": nothing was changed.",
                          "The definition is newer than the archive. Restore other paths with --only, or "
                          "save the group again.");
        }
        if (!there) {
            files.removed.push_back("/" + wanted);
        }
    }
    return files;
}

void for_each_file(const Archive &archive, const RestoredFiles &files,
                   const std::function<void(const RestoredFile &, const ReadMember &)> &visit)
{
    std::map<std::size_t, const RestoredFile *> wanted;
    for (const RestoredFile &file : files.members) {
        if (file.member.kind == MemberKind::file) {
            wanted[file.contents] = &file;
        }
    }
    for_each_member(archive, [&](const Member &member, const ReadMember &read) {
        const auto found = wanted.find(member.number);
        if (found != wanted.end()) {
            visit(*found->second, read);
        }
    });
}

FileChanges compare_files(const Archive &archive, const RestoredFiles &files, const GroupPlaces &places)
{
    FileChanges changes;
    Changes compared(changes, places);
    for_each_file(archive, files, [&compared](const RestoredFile &file, const ReadMember &read) {
        compared.compare_file(file, read);
    });
    for (const RestoredFile &file : files.members) {
        if (file.member.kind != MemberKind::file) {
            compared.compare_other(file);
        }
    }
    for (const std::string &path : files.removed) {
        const Present present = look_at(path.substr(1), places);
        if (is_folder(present)) {
            refuse_place(path, "is a folder here, and was gone when the environment was saved");
        }
        if (present.exists) {
            changes.removed.insert(path);
        }
    }
    return changes;
}

}  // namespace engine
