// kestactl verify: the storage places of this controller and the shared ones held against each other.
#include <kesta/kesta.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <optional>

#include "appliance_state.h"
#include "archive_evidence.h"
#include "archive_places.h"
#include "command.h"
#include "identity_state.h"
#include "lock_state.h"
#include "mirror.h"
#include "names.h"
#include "overview.h"
#include "trace_capture.h"
#include "unfinished_restore.h"
#include "whole_file.h"

namespace kestactl {
namespace {

// Files that are there only while a command works on them, and what completes it.
struct Leftover {
    const char *path;
    const char *mend;
};
constexpr std::array<Leftover, 5> leftovers{{
    {unfinished_archive, "run 'kestactl save GROUP' again"},
    {"/opt/kesta_sys/bakup/.restore.new", "run 'kestactl restore GROUP' again"},
    {"/opt/kesta_sys/bakup/backup.tar.Z.new", "run 'kestactl restore GROUP' again"},
    {"/opt/kesta_sys/bakup/accept.tar.Z.new", "run 'kestactl accept' again, or 'kestactl restore GROUP --from accept'"},
    {unfinished_flash_copy, "run 'kestactl copy backup2copy GROUP' again"},
}};

// One thing that was looked at. No mend: it is in order.
struct Check {
    std::string what;
    std::string found;
    std::string mend;
    bool unreadable = false;  // no answer: never a pass
};

using Checks = std::vector<Check>;

bool exists(const std::string &path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0;
}

// Which of the two is right, as far as its slot names tell, and what mends the other one.
struct Right {
    std::string found;
    std::string mend;
};

Right right_place(const MirrorState &mirror)
{
    const bool memory = mirror.valid(Side::memory);
    const bool disk = mirror.valid(Side::disk);
    if (memory != disk) {
        return {memory ? "; right is NV memory" : "; right is the disk", "kestactl repair"};
    }
    return {memory ? "; both look valid" : "; neither is valid",
            memory ? "look at 'kestactl nv verify', then kestactl repair --from memory, or --from disk"
                   : "kestactl slot switch --backup " KESTA_SLOT0 " --accept " KESTA_SLOT1};
}

void check_slots(Checks &checks, const MirrorState &mirror)
{
    const bool agree = !mirror.items[0].differs() && !mirror.items[1].differs();
    const std::string backup = backup_slot();
    const std::string accept = accept_slot();
    if (agree && mirror.valid(Side::memory) && backup != accept) {
        checks.push_back({"slot names", "backup " + backup + ", accept " + accept, ""});
        return;
    }
    const Right right = right_place(mirror);
    checks.push_back({"slot names",
                      agree ? "they are not two different slots" : "NV memory and disk differ" + right.found,
                      agree ? "kestactl slot switch --backup " KESTA_SLOT0 " --accept " KESTA_SLOT1
                            : right.mend});
}

void check_mirror(Checks &checks, const MirrorState &mirror)
{
    const auto differing = std::count_if(mirror.items.begin(), mirror.items.end(),
                                         [](const MirroredItem &item) { return item.differs(); });
    const Right right = right_place(mirror);
    checks.push_back({"mirrored items",
                      differing == 0 ? "NV memory and disk agree"
                                     : std::to_string(differing) +
                                           " of 12 differ between NV memory and disk" + right.found,
                      differing == 0 ? "" : right.mend});
}

// ----------------------------------------------------------------------------------- the archives

// A slot's archive. Unreadable is not absent: what can't be read may be the last good copy.
struct SlotContents {
    std::optional<std::string> bytes;  // nothing: there is none, or it can't be read
    bool unreadable = false;
    bool damaged = false;
};

SlotContents slot_contents(const std::string &slot)
{
    if (!is_slot(slot)) {
        return {};
    }
    std::string bytes;
    const ArchiveEvidence evidence = evidence_of_slot(slot, bytes);
    if (evidence.sha256.empty()) {
        return {std::nullopt, evidence.state == CopyState::unreadable, false};
    }
    return {std::move(bytes), false, !evidence.good()};
}

// What is wrong with an archive on flash; empty if it can be unpacked to its end.
std::string fault_on_flash(const char *path)
{
    const ArchiveEvidence evidence = evidence_of_file(path);
    return evidence.good()                             ? ""
           : evidence.state == CopyState::unreadable ? "can't be read on flash: " + evidence.reason
                                                     : "damaged on flash: " + evidence.reason;
}

struct ArchivePair {
    const char *what;
    const char *flash;
    std::string slot;
    bool flash_is_right;  // where the two differ, and both are whole
    std::string to_slot;  // the commands that mend it
    std::string to_flash;
};

constexpr const char *no_whole_copy = "kestactl save GROUP: no whole copy is left here";

// An archive that is damaged is the right one nowhere, and what can't be read is not overwritten.
void check_archive(Checks &checks, const ArchivePair &pair)
{
    const bool on_flash = exists(pair.flash);
    const std::string fault = on_flash ? fault_on_flash(pair.flash) : "";
    const SlotContents slot = slot_contents(pair.slot);
    Check check{pair.what, "", "", false};
    const bool slot_is_good = slot.bytes && !slot.damaged;
    const bool flash_is_good = on_flash && fault.empty();
    if (slot.unreadable) {
        check.found = (fault.empty() ? "" : fault + ", and ") + "slot " + pair.slot + " can't be read";
        check.mend = "check the disk of the system backup area, and write nothing to it before it can be read";
        check.unreadable = true;
    } else if (!on_flash && !slot.bytes) {
        check.found = "none, neither on flash nor in its slot";
    } else if (!flash_is_good && !slot_is_good) {
        check.found = (on_flash ? fault : "none on flash") +
                      (slot.bytes ? ", and damaged in slot " + pair.slot : ", and none in slot " + pair.slot);
        check.mend = no_whole_copy;
    } else if (!flash_is_good) {
        check.found = on_flash ? fault : "in slot " + pair.slot + ", and not on flash";
        check.mend = pair.to_flash;
    } else if (!slot_is_good) {
        check.found = slot.bytes ? "damaged in slot " + pair.slot : "on flash, and not in slot " + pair.slot;
        check.mend = pair.to_slot;
    } else if (read_whole_file(pair.flash) != *slot.bytes) {
        check.found = "flash and slot " + pair.slot + " differ; right is " +
                      (pair.flash_is_right ? "flash" : "the slot");
        check.mend = pair.flash_is_right ? pair.to_slot : pair.to_flash;
    } else {
        check.found = "the same on flash and in slot " + pair.slot;
    }
    checks.push_back(check);
}

bool same_contents(const std::string &path, const std::optional<std::string> &other)
{
    return other && exists(path) && read_whole_file(path) == *other;
}

void check_backup(Checks &checks, bool saved_here)
{
    // Flash with the accepted environment was brought there: what is in the backup slot is not to be lost to it.
    const bool is_accepted = same_contents(flash_backup, slot_contents(accept_slot()).bytes);
    check_archive(checks, {"backup", flash_backup, backup_slot(), saved_here && !is_accepted,
                           "kestactl copy cntbackup2backup", "kestactl restore GROUP --switch-only"});
}

void check_accepted(Checks &checks)
{
    // "accept" stores what is on flash as the backup: the same only as long as nothing was saved since.
    const bool is_backup =
        exists(flash_accept) && same_contents(flash_backup, read_whole_file(flash_accept));
    check_archive(checks, {"accepted", flash_accept, accept_slot(), false,
                           is_backup ? "kestactl accept"
                                     : std::string("cp -p ") + flash_accept + " " + merge_backup +
                                           " && kestactl copy merge-file2accept",
                           "kestactl copy backup2tmp --accept --check, and copy its check.tar.Z to "
                           "/opt/kesta_sys/bakup/accept.tar.Z"});
}

// ----------------------------------------------------------------------------------- the versions

struct Versions {
    int backup;
    int accept;
    int current;
    int flash = -1;
};

Versions read_versions(int own)
{
    Versions versions{};
    versions.backup = kestal_read_version_nolock(KESTA_VER_AREA_BACKUP, own, KESTA_VERSION_BY_MODE);
    versions.accept = kestal_read_version_nolock(KESTA_VER_AREA_ACCEPT, own, KESTA_VERSION_BY_MODE);
    versions.current = kestal_read_version_nolock(KESTA_VER_AREA_CURRENT, own, KESTA_VERSION_BY_MODE);
    (void)kestal_read_flash_version_file(&versions.flash, KESTA_FLASH_VERSION);  // then it stays -1
    return versions;
}

void check_versions(Checks &checks, const Versions &versions)
{
    const auto shown = [](int version) {
        return version < 0 ? std::string("none") : std::to_string(version);
    };
    const std::string found = "this controller " + shown(versions.current) + ", its flash " +
                              shown(versions.flash) + ", the backup " + shown(versions.backup) +
                              ", the accepted " + shown(versions.accept);
    const bool never = versions.flash < 0 && versions.current <= 0;
    std::string mend;
    if (!never && versions.flash != versions.current) {
        mend = "kestactl version set flash " + shown(versions.current);
    } else if (versions.current != versions.backup && versions.current != versions.accept) {
        mend = "kestactl restore GROUP, or kestactl save GROUP if this controller is right";
    }
    checks.push_back({"versions", found, mend});
}

// ----------------------------------------------------------------------------- what else there is

void check_identity(Checks &checks)
{
    const Identity board = read_identity(Place::vpd);
    std::string differing;
    for (const PlaceName &place : identity_places) {
        const Identity other = read_identity(place.place);
        const auto differs = [](const std::optional<std::string> &a,
                                const std::optional<std::string> &b) { return a && b && *a != *b; };
        if (differs(other.wwn, board.wwn) || differs(other.serialno, board.serialno) ||
            differs(other.guid, board.guid)) {
            differing += (differing.empty() ? "" : ", ") + std::string(place.title);
        }
    }
    checks.push_back({"identity",
                      differing.empty() ? "all places agree"
                                        : "other than the board's: " + differing,
                      differing.empty() ? "" : "look at 'kestactl identity show', then carry it"});
}

void check_unfinished(Checks &checks)
{
    for (const Leftover &leftover : leftovers) {
        if (exists(leftover.path)) {
            checks.push_back({"unfinished", std::string(leftover.path) + " was left behind",
                              leftover.mend});
        }
    }
    if (const auto restore = unfinished_restore()) {
        checks.push_back({"unfinished", "a restore of " + restore->group + ": its files may be partly new, partly old",
                          restore->command()});
    }
    if (const std::string holders = inner_lock_text(); !holders.empty()) {
        checks.push_back({"inner lock", "held by " + holders,
                          "nothing to do: the next command waits for it, and clears a dead one after 30 "
                          "seconds"});
    }
    for (const CommandLock &lock : read_lock_state().held) {
        checks.push_back({"command lock", "held by " + controller_name(lock.controller),
                          "wait for it, or clear it if its holder is dead: " +
                              clearing_command(lock)});
    }
}

void add_row(Result &result, const Check &check)
{
    char start[64];
    snprintf(start, sizeof(start), "%-2s  %-16s ", check.mend.empty() ? "" : "!!", check.what.c_str());
    result.text += start + check.found + "\n";
    if (!check.mend.empty()) {
        result.text += "      mend it: " + check.mend + "\n";
        result.exit = std::max(result.exit, check.unreadable ? Exit::platform : Exit::no);
    }
    result.json["checks"].push_back({{"what", check.what},
                                     {"good", check.mend.empty()},
                                     {"found", check.found},
                                     {"mend", check.mend.empty() ? Json(nullptr) : Json(check.mend)}});
}

}  // namespace

Result verify_places()
{
    const int own = learn_own_number();
    const MirrorState mirror = read_mirror();
    const Versions versions = read_versions(own);
    const bool saved_here = versions.flash == versions.backup;
    Checks checks;
    check_slots(checks, mirror);
    check_mirror(checks, mirror);
    check_backup(checks, saved_here);
    check_accepted(checks);
    check_versions(checks, versions);
    check_identity(checks);
    check_unfinished(checks);
    Result result;
    result.json = {{"controller", own}, {"checks", Json::array()}};
    for (const Check &check : checks) {
        add_row(result, check);
    }
    result.text += result.exit == Exit::done ? "All places agree.\n"
                                             : "Some places do not agree.\n";
    return result;
}

void add_verify(CLI::App &app, Action &action)
{
    CLI::App *command = app.add_subcommand(
        "verify", "Hold flash, slots, NV memory and disk against each other, and say what to do");
    command->callback([&action] { action = [](const Globals &) { return verify_places(); }; });
    add_examples(*command, "  kestactl verify\n"
                           "  kestactl verify --json");
}

}  // namespace kestactl
