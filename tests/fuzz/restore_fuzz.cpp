// Any archive, restored into a small system of its own. Whatever it holds: nothing outside of the
// group's paths changes, nothing there runs with another one's rights, and what is refused
// beforehand changes nothing at all.
//
// The first byte chooses the definition, the rest is the archive. RESTORE_INPUT says as what: a tar
// that is packed here, its checksums put right; what bzip2 has made; or lines that tell its
// members.
#include <stdio.h>
#include <string.h>

#include <memory>

#include "contract.h"
#include "crafted_archive.h"
#include "file_properties.h"
#include "group_sentinels.h"
#include "placed_files.h"
#include "restored_files.h"
#include "scratch_root.h"
#include "shown_result.h"

using fuzz::require;

namespace {

using namespace kestactl;

constexpr ArchiveLimits limits{.bytes = 1 << 20, .members = 100, .ratio = 1000};

struct Wanted {
    bool may_be_gone;
    const char *only;
};
constexpr Wanted all_wanted[] = {
    {false, ""},        {true, ""}, {false, "/etc/app/more"}, {true, "/etc/single"}, {true, "/var/new/deep/file"},
    {true, "/etc/app"},
};

std::unique_ptr<KESTA_BACKUP_FILE> definition_of(const Wanted &wanted)
{
    auto definition = std::make_unique<KESTA_BACKUP_FILE>();
    strcpy(definition->groupname, "network");
    strcpy(definition->operation, wanted.may_be_gone ? "addremove" : "");
    KESTA_BACKUP_FILE_PATH *file = definition->setfile;
    for (const char *path : {"/etc/app", "/etc/single", "/srv/data/file", "/var/new/deep/file"}) {
        strcpy((file++)->pathname, path);
    }
    KESTA_BACKUP_FILE_PATH &single = definition->setfile[1];
    strcpy(single.linkpath[0], "/etc/links/single");
    strcpy(single.owner, "user");
    strcpy(single.group, "user");
    strcpy(single.filemode, "640");
    return definition;
}

// In memory, in the file and not at all: small members come to each of them.
KeptContents kept_by_all_means() { return KeptContents({.folder = "/", .in_memory = 512, .bytes = 8192}, 16); }

std::string packed(const uint8_t *data, size_t size)
{
    const std::string bytes(reinterpret_cast<const char *>(data), size);
#if RESTORE_INPUT == 0
    return fuzz::packed(fuzz::with_checksums(bytes));
#elif RESTORE_INPUT == 1
    return bytes;
#else
    return fuzz::packed(fuzz::tar_of_lines(bytes));
#endif
}

// What could be staged can be placed: nobody else works on the system.
void place(const RestoredFiles &files, FileChanges &changes, const GroupPlaces &places)
{
    try {
        place_files(files, changes, places);
    } catch (const Failure &failure) {
        fprintf(stderr, "%s\n", failure.what());
        fuzz::broken("what was accepted can't be placed");
    }
}

// As kestactl restore does it, without locks, scripts and versions. Whether it came to changing
// files.
bool restore(const Archive &archive, const Wanted &wanted)
{
    bool changes_files = false;
    try {
        const auto definition = definition_of(wanted);
        const GroupPaths paths(*definition, wanted.only);
        RestoredFiles files = choose_files(archive, *definition, paths, kept_by_all_means());
        FileChanges changes = compare_files(archive, files, GroupPlaces(paths));
        const GroupPlaces places(paths);
        changes_files = true;
        stage_files(archive, files, changes, places);
        place(files, changes, places);
        for (const KESTA_BACKUP_FILE_PATH &file : files_of(*definition)) {
            apply_properties(file, wanted.may_be_gone);
        }
    } catch (const Failure &failure) {
        fuzz::require_printable(shown_failure(failure, Form::text));
        fuzz::require_json(shown_failure(failure, Form::json));
    }
    return changes_files;
}

// Another name for something outside would let it be changed later. It may lose one.
void require_same(const fuzz::Picture &before, const fuzz::Picture &after, const char *what)
{
    for (const auto &[path, now] : after) {
        const auto found = before.find(path);
        if (found == before.end() || found->second.what != now.what || found->second.names < now.names) {
            fprintf(stderr, "%s is now %s\n", path.c_str(), now.what.c_str());
            fuzz::broken(what);
        }
    }
    require(before.size() == after.size(), what);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::make_scratch_root();
    const fuzz::Visit visit;
    fuzz::lay_out_sentinels();
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    const Wanted &wanted = all_wanted[data[0] % std::size(all_wanted)];
    const Archive archive{contents_of_bytes(packed(data + 1, size - 1)), "Slot kesta_backup0", limits, [] {
                          }};
    const fuzz::Visit visit;
    fuzz::lay_out_group();
    const fuzz::Picture outside = fuzz::picture_outside();
    const fuzz::Picture inside = fuzz::picture_inside();
    const int descriptor = fuzz::next_descriptor();
    const bool changes_files = restore(archive, wanted);
    require(fuzz::next_descriptor() == descriptor, "a descriptor is left open");
    require_same(outside, fuzz::picture_outside(), "something outside of the group has changed");
    const fuzz::Picture now = fuzz::picture_inside();
    if (!changes_files) {
        require_same(inside, now, "what was refused has changed something");
    }
    return 0;
}
