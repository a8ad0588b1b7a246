#include "restored_files.h"

#include <algorithm>
#include <utility>

#include "archive_evidence.h"
#include "failure.h"
#include "group_definition.h"

namespace engine {
namespace {

class Choice {
public:
    Choice(const Archive &archive, const GroupPaths &paths, KeptContents kept)
        : archive_(archive), paths_(paths), places_(paths)
    {
        files_.kept = std::move(kept);
    }

    void visit(const Member &member, const ReadMember &read)
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
        if (member.kind == MemberKind::file) {
            compare(member, read);
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

    // Whether the archive has something at or below a path of the group.
    bool holds(const std::string &path) const
    {
        const auto below = kinds_.lower_bound(path + "/");
        return kinds_.contains(path) || (below != kinds_.end() && is_within(below->first, path));
    }

private:
    [[noreturn]] void refuse(const std::string &what) const
    {
        throw Failure(Exit::no, "unsafe-archive", archive_.name + " " + what + ": nothing was taken from it.",
                      "It was not made by 'kestactl save'. Restore the other environment with "
                      "--from, or save "
                      "this controller's again.");
    }

    // What is kept are the pieces that are compared: they can be read once.
    void compare(const Member &member, const ReadMember &read)
    {
        KeptContents &kept = files_.kept;
        if (!kept.is_wanted()) {
            (void)files_.compared.compare(member, read, places_);
            return;
        }
        bool is_read = false;
        const auto keep = [&](const TakePiece &take) {
            is_read = true;
            read([&](std::uint64_t offset, std::string_view piece) {
                kept.take(offset, piece);
                take(offset, piece);
            });
        };
        kept.begin(member.number);
        const bool is_here = files_.compared.compare(member, keep, places_);
        if (!is_read) {
            read([&kept](std::uint64_t offset, std::string_view piece) { kept.take(offset, piece); });
        }
        kept.end(!is_here);
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
        const auto contents = contents_.find(member.target);  // what only leads to the group has none
        const bool is_file = contents != contents_.end() && (kinds_.at(member.target) == MemberKind::file ||
                                                             kinds_.at(member.target) == MemberKind::hard_link);
        if (!is_file) {
            refuse("holds '" + member.path + "' as another name of '" + member.target +
                   "', which is no file of the group that came before");
        }
        return contents->second;
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
    const GroupPlaces places_;
    RestoredFiles files_;
    std::map<std::string, std::size_t> chosen_;    // where they stand in the list
    std::map<std::string, MemberKind> kinds_;      // of the group's members, and what leads to them
    std::map<std::string, std::size_t> contents_;  // of the group's members, by number
    std::map<std::size_t, std::uint64_t> sizes_;
};

void require_undamaged(const Archive &archive)
{
    const ArchiveEvidence evidence = evidence_of(archive.contents, archive.look);
    if (evidence.state == CopyState::damaged) {
        throw DamagedArchive(archive.name, evidence.reason);
    }
}

}  // namespace

RestoredFiles choose_files(const Archive &archive, const KESTA_BACKUP_FILE &definition, const GroupPaths &paths,
                           KeptContents kept)
{
    Choice choice(archive, paths, std::move(kept));
    try {
        for_each_member(archive,
                        [&choice](const Member &member, const ReadMember &read) { choice.visit(member, read); });
    } catch (const DamagedArchive &) {
        throw;
    } catch (const Failure &refused) {
        if (refused.exit() == Exit::no) {
            require_undamaged(archive);  // a damaged one may seem to hold any name, before its checksum is met
        }
        throw;
    }
    RestoredFiles files = choice.finish();
    // Only what a definition names was gone as such; a new file of a folder that the archive has stays.
    const auto was_gone = [&](const std::string &wanted) {
        return std::any_of(paths.all().begin(), paths.all().end(),
                           [&](const std::string &path) { return is_within(wanted, path) && !choice.holds(path); });
    };
    for (const std::string &wanted : paths.wanted()) {
        const bool there = std::any_of(files.members.begin(), files.members.end(), [&wanted](const RestoredFile &file) {
            return is_within(file.member.path, wanted);
        });
        if (!there && !(may_be_gone(definition) && was_gone(wanted))) {
            throw Failure(Exit::no, "not-in-archive", archive.name + " has no /" + wanted + ": nothing was changed.",
                          was_gone(wanted) ? "The definition is newer than the archive. Restore other paths with "
                                             "--only, or save the group again."
                                           : "Files of a folder that an archive does not have stay, as in a restore "
                                             "of the whole group. Remove it by hand if it has to go.");
        }
        if (!there) {
            files.removed.push_back("/" + wanted);
        }
    }
    return files;
}

void for_each_file(const Archive &archive, const KeptContents &kept, const FilesByContents &wanted,
                   const std::function<void(const RestoredFile &, const ReadMember &)> &visit)
{
    FilesByContents packed;
    for (auto at = wanted.rbegin(); at != wanted.rend(); ++at) {
        const auto &[number, file] = *at;
        if (!kept.has(number)) {
            packed[number] = file;
            continue;
        }
        visit(*file,
              [&archive, &kept, contents = number](const TakePiece &take) { kept.read(contents, archive.look, take); });
    }
    if (packed.empty()) {
        return;
    }
    for_members_until(archive, [&](const Member &member, const ReadMember &read) {
        const auto found = packed.find(member.number);
        if (found != packed.end()) {
            visit(*found->second, read);
            packed.erase(found);
        }
        return !packed.empty();
    });
}

}  // namespace engine
