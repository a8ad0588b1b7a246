#include "placed_files.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <exception>
#include <filesystem>
#include <map>

#include "failure.h"
#include "whole_file.h"

namespace engine {
namespace {

namespace fs = std::filesystem;

constexpr mode_t folder_mode = 0755;

[[noreturn]] void fail_changed(const std::string &path)
{
    throw Failure(Exit::platform, "changed-meanwhile",
                  path + " was exchanged while it was worked on: it was left alone.",
                  "Somebody else may write to its folder. Run the command again.");
}

std::string relative(const std::string &path) { return path.substr(1); }

// ------------------------------------------------------------------------------------- the way

// A folder as the archive recorded it; null if it did not.
const Member *recorded_folder(const std::string &path, const RestoredFiles &files)
{
    const auto found = files.folders.find(path);
    return found == files.folders.end() ? nullptr : &found->second;
}

void make_one_folder(const Entry &entry, const std::string &path, const Member *recorded)
{
    Owners owners;
    const Descriptor folder = make_folder(entry);
    const bool made = folder &&
                      (!recorded || set_owner(folder, owners.owner_of(*recorded), owners.group_of(*recorded))) &&
                      set_mode(folder, recorded ? recorded->mode : folder_mode);
    if (!made) {
        fail_file("/" + path, "made");
    }
}

// The folders that lead to a path, with the owners and modes that the archive recorded, where it
// did.
Entry make_way(const std::string &path, const RestoredFiles &files, const GroupPlaces &places)
{
    if (Entry entry = places.entry(path)) {
        return entry;
    }
    const std::string way = fs::path(path).parent_path().string();
    const Entry above = make_way(way, files, places);
    struct stat status;
    if (!stat_of(above, status)) {
        make_one_folder(above, way, recorded_folder(way, files));
    }
    Entry entry = places.entry(path);
    if (!entry) {
        fail_file("/" + path, "reached");
    }
    return entry;
}

// ------------------------------------------------------------------------------------- the writing

void write_piece(int fd, std::uint64_t offset, std::string_view piece, const std::string &path)
{
    while (!piece.empty()) {
        const ssize_t put = pwrite(fd, piece.data(), piece.size(), static_cast<off_t>(offset));
        if (put < 0 && errno == EINTR) {
            continue;
        }
        if (put <= 0) {
            fail_file(path, "written");
        }
        offset += static_cast<std::uint64_t>(put);
        piece.remove_prefix(static_cast<std::size_t>(put));
    }
}

void stage_file(const Entry &staged, const RestoredFile &file, const ReadMember &read, FileChanges &changes,
                Owners &owners)
{
    const Member &member = file.member;
    const std::string path = file.path();
    Descriptor fd = make_file(staged);
    if (!fd) {
        fail_file(path, "written beside the old one");
    }
    read([&](std::uint64_t offset, std::string_view piece) { write_piece(fd.get(), offset, piece, path); });
    struct stat status;
    const bool whole = ftruncate(fd.get(), static_cast<off_t>(member.size)) == 0 &&
                       set_owner(fd, owners.owner_of(member), owners.group_of(member)) && set_mode(fd, member.mode) &&
                       set_modified(fd, member.modified) && fstat(fd.get(), &status) == 0 && fd.close();
    if (!whole) {
        fail_file(path, "written beside the old one");
    }
    changes.known.insert_or_assign(path, FileNumber(status));
}

void stage_link(const Entry &staged, const RestoredFile &file, Owners &owners)
{
    const Descriptor link = make_link(staged, file.member.target);
    if (!link || !set_owner(link, owners.owner_of(file.member), owners.group_of(file.member))) {
        fail_file(file.path(), "made beside the old one");
    }
}

Entry stage_entry(const RestoredFile &file, const RestoredFiles &files, const GroupPlaces &places)
{
    Entry staged = make_way(file.member.path, files, places);
    staged.name = staged_name(staged.name);
    (void)remove(staged, staged.name);  // of a run that was cut short; making it tells
    return staged;
}

// The file systems that were written to: each is flushed once, however many files it got.
class WrittenFileSystems {
public:
    // Before anything is written to this folder: what fails from here on is told when it is flushed.
    void add(const Entry &entry, const std::string &path)
    {
        struct stat status {};
        if (fstat(entry.folder.get(), &status) != 0) {
            fail_file(path, "reached");
        }
        Descriptor &open = folders_[status.st_dev];
        if (!open) {
            open = Descriptor(openat(entry.folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        }
        if (!open) {
            fail_file(path, "reached");
        }
    }
    void flush() const
    {
        for (const auto &[device, folder] : folders_) {
            if (syncfs(folder.get()) != 0) {
                fail_file("The file system of the new files", "flushed to the disk");
            }
        }
    }

private:
    std::map<dev_t, Descriptor> folders_;
};

// ------------------------------------------------------------------------------------- the placing

void stage_second_name(const Entry &staged, const RestoredFile &file, const FileChanges &changes,
                       const GroupPlaces &places)
{
    const std::string first = "/" + file.member.target;
    struct stat status;
    const Entry entry = places.entry(file.member.target);
    const Descriptor target = entry ? open_itself(entry, status) : Descriptor();
    const auto known = changes.known.find(first);
    if (!target || known == changes.known.end() || !(known->second == FileNumber(status))) {
        fail_changed(first);
    }
    if (!make_name(staged, target)) {
        fail_file(file.path(), "made a second name of " + first);
    }
}

void place(const RestoredFile &file, const RestoredFiles &files, const FileChanges &changes, const GroupPlaces &places)
{
    const Entry entry = make_way(file.member.path, files, places);
    if (file.member.kind == MemberKind::folder) {
        struct stat status;
        if (!stat_of(entry, status)) {
            make_one_folder(entry, file.member.path, &file.member);
        }
        return;
    }
    if (file.member.kind == MemberKind::hard_link) {
        stage_second_name(stage_entry(file, files, places), file, changes, places);
    }
    const std::string staged = staged_name(entry.name);
    if (!take_place(entry, staged)) {
        fail_file(file.path(), "replaced");
    }
    (void)remove(entry, staged);  // two names of one file are not renamed, and both stay
}

// What was compared is what is given its owner and mode.
void adjust(const RestoredFile &file, const FileChanges &changes, const GroupPlaces &places, Owners &owners)
{
    const Member &member = file.member;
    const Entry entry = places.entry(member.path);
    const bool is_link = member.kind == MemberKind::link;
    struct stat status;
    const Descriptor thing = !entry ? Descriptor() : is_link ? open_itself(entry, status) : open_plain(entry, status);
    const auto known = changes.known.find(file.path());
    const bool same = thing && known != changes.known.end() && known->second == FileNumber(status) &&
                      (member.kind != MemberKind::file || status.st_nlink == 1);
    if (!same) {
        fail_changed(file.path());
    }
    if (!set_owner(thing, owners.owner_of(member), owners.group_of(member)) ||
        (!is_link && !set_mode(thing, member.mode)) ||
        (member.kind == MemberKind::file && !set_modified(thing, member.modified))) {
        fail_file(file.path(), "given its owner and mode");
    }
}

void flush_folders(const FileChanges &changes, const GroupPlaces &places)
{
    std::set<std::string> flushed;
    for (const std::set<std::string> *paths : {&changes.replaced, &changes.removed}) {
        for (const std::string &path : *paths) {
            const std::string folder = fs::path(places.place_of(relative(path))).parent_path().string();
            if (!flushed.insert(folder).second) {
                continue;
            }
            const Descriptor fd = places.root().open(folder, O_RDONLY | O_DIRECTORY);
            if (!fd || fsync(fd.get()) != 0) {
                fail_file("/" + folder, "flushed to the disk");
            }
        }
    }
}

void remove_file(const std::string &path, const GroupPlaces &places)
{
    const Entry entry = places.entry(relative(path));
    if (entry && !remove(entry, entry.name) && errno != ENOENT) {
        fail_file(path, "removed");
    }
}

}  // namespace

void stage_files(const Archive &archive, RestoredFiles &files, FileChanges &changes, const GroupPlaces &places)
{
    Owners owners;
    WrittenFileSystems written;
    const auto stage = [&](const RestoredFile &file) {
        Entry staged = stage_entry(file, files, places);
        written.add(staged, file.path());
        return staged;
    };
    FilesByContents replaced;
    for (const RestoredFile &file : files.members) {
        if (file.member.kind == MemberKind::file && changes.replaced.contains(file.path())) {
            replaced[file.contents] = &file;
        }
    }
    try {
        for_each_file(archive, files.kept, replaced, [&](const RestoredFile &file, const ReadMember &read) {
            stage_file(stage(file), file, read, changes, owners);
            files.kept.drop_from(file.contents);
        });
        files.kept.require_intact();
        for (const RestoredFile &file : files.members) {
            if (file.member.kind == MemberKind::link && changes.replaced.contains(file.path())) {
                stage_link(stage(file), file, owners);
            }
        }
        written.flush();
    } catch (const std::exception &) {
        remove_staged(changes.replaced, places);
        throw;
    }
}

void place_files(const RestoredFiles &files, FileChanges &changes, const GroupPlaces &places)
{
    Owners owners;
    // Files first: a second name may stand before the one that it is made of.
    for (const bool second_names : {false, true}) {
        for (const RestoredFile &file : files.members) {
            if ((file.member.kind == MemberKind::hard_link) != second_names) {
                continue;
            }
            if (changes.replaced.contains(file.path())) {
                place(file, files, changes, places);
            } else if (changes.adjusted.contains(file.path())) {
                adjust(file, changes, places, owners);
            }
        }
    }
    for (const std::string &path : changes.removed) {
        remove_file(path, places);
    }
    flush_folders(changes, places);
}

void remove_staged(const std::set<std::string> &paths, const GroupPlaces &places)
{
    for (const std::string &path : paths) {
        const Entry entry = places.root().entry(places.place_of(relative(path)));
        if (entry) {
            (void)remove(entry, staged_name(entry.name));  // best effort
        }
    }
}

}  // namespace engine
