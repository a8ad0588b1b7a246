#include "find_others.h"

#include <kesta/kesta.h>

#include <algorithm>

#include "appliance_state.h"
#include "find_archives.h"
#include "generations.h"
#include "identity_state.h"
#include "inner_lock_holders.h"
#include "leftovers.h"
#include "lock_state.h"
#include "names.h"
#include "unfinished_restore.h"

namespace engine {
namespace {

PlaceFinding place_of(const char *name, const VersionNumber &version)
{
    PlaceFinding place;
    place.place = name;
    place.state = version.unreadable ? CopyState::unreadable : version.number ? CopyState::good : CopyState::absent;
    place.version = version.number;
    return place;
}

std::string shown(const VersionNumber &version)
{
    return version.unreadable ? "unreadable" : version.number ? std::to_string(*version.number) : "none";
}

MendCommand set_version(const std::string &area, int version)
{
    return {"kestactl", "version", "set", area, std::to_string(version)};
}

// A role's number that nobody has any more, while its archive is known by its bytes. The newest record counts.
void add_lost_number(Mend &mend, const Survey &survey, const VersionNumber &number, StoragePlace slot, const char *area)
{
    if (!number.number && !number.unreadable && !survey.recorded_at(slot).empty()) {
        mend.push_back(set_version(area, survey.recorded_at(slot).back()));
    }
}

std::string differing_identities()
{
    const Identity board = read_identity(Place::vpd);
    const auto differs = [](const std::optional<std::string> &a, const std::optional<std::string> &b) {
        return a && b && *a != *b;
    };
    std::string differing;
    for (const PlaceName &place : identity_places) {
        const Identity other = read_identity(place.place);
        if (differs(other.wwn, board.wwn) || differs(other.serialno, board.serialno) ||
            differs(other.guid, board.guid)) {
            differing += (differing.empty() ? "" : ", ") + std::string(place.title);
        }
    }
    return differing;
}

// "NV memory", "the system backup area", or both.
std::string unreadable_identities(const Survey &survey)
{
    std::string unreadable;
    for (const Side side : {Side::memory, Side::disk}) {
        const bool has_one =
            std::any_of(survey.mirror.items.begin(), survey.mirror.items.end(), [side](const MirroredItem &item) {
                const int id = item.block->id;
                const bool of_identity = id == KESTA_BLOCK_WWN || id == KESTA_BLOCK_SERIALNO || id == KESTA_BLOCK_GUID;
                return of_identity && (side == Side::memory ? item.memory_unreadable : item.disk_unreadable);
            });
        if (has_one) {
            unreadable += (unreadable.empty() ? "" : " and ") + std::string(name_of(side));
        }
    }
    return unreadable;
}

// The number on flash is all that tells which version its archive is: another number would make it pass for that one.
bool flash_is_told_by_number_only(const Survey &survey)
{
    const ArchiveEvidence &flash = survey.at(StoragePlace::backup_on_flash);
    return flash.good() && survey.recorded_at(StoragePlace::backup_on_flash).empty() &&
           !flash.same_bytes(survey.at(StoragePlace::slot0)) && !flash.same_bytes(survey.at(StoragePlace::slot1));
}

}  // namespace

SubjectFinding find_versions(const Survey &survey, const SlotDecision &slots)
{
    const VersionNumbers &versions = survey.versions;
    SubjectFinding finding{"versions"};
    finding.places = {place_of("current", versions.current), place_of("flash", versions.flash),
                      place_of("backup", versions.backup), place_of("accepted", versions.accept)};
    finding.text = "this controller " + shown(versions.current) + ", its flash " + shown(versions.flash) +
                   ", the backup " + shown(versions.backup) + ", the accepted " + shown(versions.accept);
    if (finding.has_unreadable_place()) {
        finding.state = FindingState::unreadable;
        finding.mend.reset();
        finding.text += ". Some can't be read: check the NV memory and the system backup area.";
        return finding;
    }
    Mend mend;
    const bool differs = versions.flash.number != versions.current.number;
    if (differs && versions.current.number && flash_is_told_by_number_only(survey)) {
        finding.state = FindingState::differs;
        finding.mend.reset();
        finding.text +=
            ". Only the number on flash tells of the archive there: look at it, then set the one that is wrong "
            "with 'kestactl version set current' or 'kestactl version set flash'.";
        return finding;
    }
    if (differs) {
        mend.push_back(versions.current.number ? set_version("flash", *versions.current.number)
                                               : set_version("current", *versions.flash.number));
    }
    if (slots.right) {
        add_lost_number(mend, survey, versions.backup, slot_place(slots.right->backup), "backup");
        add_lost_number(mend, survey, versions.accept, slot_place(slots.right->accept), "accept");
    }
    const bool runs_another = versions.current.number && versions.current.number != versions.backup.number &&
                              versions.current.number != versions.accept.number;
    if (!mend.empty()) {
        finding.state = FindingState::differs;
        finding.mend = mend;
    } else if (runs_another) {
        finding.state = FindingState::differs;
        finding.mend.reset();
        finding.text +=
            ". It runs with neither of the two: bring one to it with 'kestactl restore', or 'kestactl save' what "
            "it runs with.";
    }
    return finding;
}

// Only CNT0 and CNT1 carry an identity from the board; CNT1's, carried while CNT0 has another one, would go to and fro.
std::string advice_on_identity(int controller)
{
    const std::string disk = "'kestactl identity carry vpd-to-disk'";
    switch (controller) {
    case 0:
        return "if the board is right, 'kestactl identity carry vpd-to-flash', if the disk is, " + disk + ".";
    case 1:
        return "to follow CNT0, whose identity the disk has, 'kestactl identity carry cnt0-to-cnt1' and then " + disk +
               "; only if this board is right for both, 'kestactl identity carry vpd-to-flash'.";
    default:
        return "if the disk is right, " + disk + "; 'kestactl identity set' sets what is of this controller alone.";
    }
}

SubjectFinding find_identity(const Survey &survey)
{
    SubjectFinding finding{"identity"};
    if (const std::string unreadable = unreadable_identities(survey); !unreadable.empty()) {
        finding.state = FindingState::unreadable;
        finding.mend.reset();
        finding.text = "Its values can't be read in " + unreadable +
                       ": check the NV memory and the disk of the system "
                       "backup area.";
        return finding;
    }
    finding.text = "all places agree";
    if (const std::string differing = differing_identities(); !differing.empty()) {
        finding.state = FindingState::differs;
        finding.mend.reset();
        finding.text = "other than the board's: " + differing +
                       ". Look at 'kestactl identity show': " + advice_on_identity(learn_own_number());
    }
    return finding;
}

SubjectFinding find_locks()
{
    SubjectFinding finding{"locks"};
    std::string held;
    if (const std::string holders = inner_lock_text(); !holders.empty()) {
        held = "The inner lock is held by " + holders +
               ": the next command waits for it, and clears a dead one after 30 "
               "seconds.";
    }
    const LockState state = read_lock_state();
    for (const CommandLock &lock : state.held) {
        held += (held.empty() ? "" : " ") + describe(lock, state.group) +
                ". Wait for it, or clear it if its command is dead: " + clearing_command(lock) + ".";
    }
    finding.text = held.empty() ? "free" : held;
    if (!held.empty()) {
        finding.state = FindingState::unfinished;
        finding.mend.reset();
    }
    return finding;
}

SubjectFinding find_leftovers(bool backup_agrees, bool accepted_agrees)
{
    SubjectFinding finding{"leftovers"};
    MendCommand clear{"kestactl", "leftovers", "clear"};
    bool stuck = false;
    for (const Leftover &leftover : find_leftover_files()) {
        stuck = stuck || !leftover.can_be_cleared();
        finding.places.push_back(leftover.told());
        clear.push_back(leftover.path);
    }
    Mend mend;
    if (!finding.places.empty()) {
        mend.push_back(clear);
        finding.text = std::to_string(finding.places.size()) +
                       " left behind; what is whole and nowhere else is kept as a "
                       "generation before it is taken away.";
    }
    try {
        if (const auto restore = unfinished_restore()) {
            const bool safe = restore->from == "accept" ? accepted_agrees : backup_agrees;
            stuck = stuck || !safe;
            mend.push_back(restore->words());
            finding.state = FindingState::unfinished;
            finding.text += (finding.text.empty() ? "" : " ") + std::string("A restore of ") + restore->group +
                            " is unfinished: its files may be partly new, partly old." +
                            (safe ? "" : " It is completed once the archives agree: " + restore->command() + ".");
        }
    } catch (const Failure &bad_note) {
        stuck = true;
        finding.state = FindingState::unfinished;
        finding.text += bad_note.what() + (" " + bad_note.hint());
    }
    if (mend.empty() && !stuck) {
        finding.text = "nothing";
        return finding;
    }
    finding.state = finding.has_unreadable_place() ? FindingState::unreadable : FindingState::unfinished;
    finding.mend = stuck ? std::nullopt : std::optional(mend);
    return finding;
}

SubjectFinding find_generations()
{
    const GenerationsCheck check = check_generations();
    SubjectFinding finding{"generations"};
    for (const GenerationProblem &problem : check.problems) {
        PlaceFinding place;
        place.place = problem.path;
        place.state = problem.fault == GenerationFault::unreadable ? CopyState::unreadable
                      : problem.fault == GenerationFault::no_file  ? CopyState::absent
                                                                   : CopyState::damaged;
        place.reason = problem.text;
        finding.places.push_back(place);
        finding.text += (finding.text.empty() ? "" : " ") + problem.text;
    }
    if (!check.problems.empty()) {
        finding.state = finding.has_unreadable_place() ? FindingState::unreadable : FindingState::damaged;
        finding.mend.reset();
        return finding;
    }
    finding.state = check.good == 0 ? FindingState::absent : FindingState::agree;
    finding.text =
        check.good == 0 ? "none kept" : std::to_string(check.good) + " kept, " + std::to_string(check.bytes) + " bytes";
    return finding;
}

}  // namespace engine
