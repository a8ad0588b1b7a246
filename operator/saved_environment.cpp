#include "saved_environment.h"

#include <kesta/kesta.h>

#include <algorithm>
#include <array>

#include "appliance_state.h"
#include "archive_evidence.h"
#include "archive_places.h"
#include "current_change.h"
#include "environment_archive.h"
#include "mirror.h"
#include "storage_places.h"
#include "version_numbers.h"
#include "whole_file.h"

namespace engine {
namespace {

void require_same(const std::string &slot, const std::string &path)
{
    if (!same_contents(read_slot(slot), contents_of_path(path))) {
        throw Failure(Exit::platform, "slot-differs", "Slot " + slot + " does not hold what was written to it.",
                      "Check the disk of the system backup area, then run the command again.");
    }
}

}  // namespace

// The slots must be the same in both places. Versions need not: they are written anew, and a command that
// was cut short may have written one of them to one place only.
bool mirror_lacks_items()
{
    const MirrorState mirror = read_mirror();
    const bool same_slots = !mirror.items[0].differs() && !mirror.items[1].differs();
    if (!mirror.valid(Side::memory) || !same_slots) {
        throw Failure(Exit::no, "places-differ", "NV memory and the system backup area do not name the same slots.",
                      "Nothing was changed. Look at 'kestactl nv verify', and mend it with 'kestactl "
                      "repair'.");
    }
    return std::any_of(mirror.items.begin(), mirror.items.end(), [](const MirroredItem &item) { return !item.disk; });
}

void complete_mirror()
{
    std::string failed;
    if (add_missing_items(read_mirror(), failed) != KESTA_OK) {
        fail_call("mirror-failed", "The item " + failed + " could not be added to the system backup area.",
                  "Check its disk: look at --trace 1 and at 'kestactl nv verify'.");
    }
}

void note_what_is_saved(const std::string &group, int version, const std::string &slot, const KeepRule &rule,
                        KeepReport &report)
{
    try {
        const std::string sum = note_saved(unfinished_archive, group, version, rule);
        note_new_archive(flash_backup, sum);
        note_new_archive(place_of_slot(slot), sum);
    } catch (const Failure &failure) {
        report.notes.push_back(std::string("The archive was not noted among the generations: ") + failure.what());
    }
}

void store_in_slot(const std::string &slot)
{
    if (kestal_cntbackup2backup() != KESTA_OK) {
        fail_call("slot-failed", "The archive was not stored in slot " + slot + ".",
                  "It is on flash. Look at --trace 1 and at the system backup area, then run the "
                  "command again.");
    }
    require_same(slot, flash_backup);
}

void record_saved_version(int version)
{
    set_version(KESTA_VER_AREA_BACKUP, version);
    set_version(KESTA_VER_AREA_CURRENT, version);
    set_flash_version(KESTA_FLASH_VERSION, version);
}

std::string require_acceptable(const std::function<void()> &look)
{
    const std::string path = flash_backup;
    require_file(path, "Save the environment first: kestactl save GROUP.");
    const ArchiveEvidence evidence = evidence_of_file(path, look);
    if (evidence.state == CopyState::damaged) {
        throw Failure(Exit::no, "damaged-archive", path + " is damaged, and is not accepted: " + evidence.reason + ".",
                      "Save the environment again, or bring a good copy to flash with 'kestactl "
                      "restore GROUP --switch-only'.");
    }
    require_whole(evidence, path);
    return evidence.sha256;
}

void store_as_accepted(const std::string &slot)
{
    std::array<char, KESTA_AREA_NAME_SIZE> name{};
    slot.copy(name.data(), name.size() - 1);
    if (kestal_merge_file2accept(name.data()) != KESTA_OK) {
        fail_call("slot-failed", "The archive was not stored in slot " + slot + ".",
                  "The accepted environment on flash is as it was. Look at --trace 1, then run the "
                  "command again.");
    }
    require_same(slot, merge_backup);
}

int record_accepted_version()
{
    const int version = kestal_read_version(KESTA_VER_AREA_BACKUP, learn_own_number(), KESTA_VERSION_BY_MODE);
    if (version < 0) {
        fail_call("version-failed", "The backup's version can't be read.", "Look at --trace 1.");
    }
    set_version(KESTA_VER_AREA_ACCEPT, version);
    return version;
}

}  // namespace engine
