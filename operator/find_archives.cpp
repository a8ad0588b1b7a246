#include "find_archives.h"

#include <array>
#include <utility>

#include "kesta/paths.h"

namespace engine {
namespace {

// The flash place and the slot of a role, with the version in force.
struct Pair {
    ArchiveRole role;
    StoragePlace flash;
    StoragePlace slot;
    VersionNumber in_force;

    std::array<StoragePlace, 2> places() const { return {flash, slot}; }
};

Pair pair_of(const Survey &survey, const SlotNames &names, ArchiveRole role)
{
    return role == ArchiveRole::backup
               ? Pair{role, StoragePlace::backup_on_flash, slot_place(names.backup), survey.versions.backup}
               : Pair{role, StoragePlace::accept_on_flash, slot_place(names.accept), survey.versions.accept};
}

std::string subject_of(ArchiveRole role) { return role == ArchiveRole::backup ? "backup" : "accepted"; }

ArchiveRole other(ArchiveRole role)
{
    return role == ArchiveRole::backup ? ArchiveRole::accepted : ArchiveRole::backup;
}

// The backup slot holds what the accept slot does, under another number, and flash has another archive of that number.
bool slot_was_overwritten(const Survey &survey, const SlotNames &names)
{
    const ArchiveEvidence &flash = survey.at(StoragePlace::backup_on_flash);
    const ArchiveEvidence &slot = survey.at(slot_place(names.backup));
    const VersionNumbers &versions = survey.versions;
    return flash.good() && !flash.same_bytes(slot) && slot.same_bytes(survey.at(slot_place(names.accept))) &&
           versions.backup.number != versions.accept.number && versions.flash.number == versions.backup.number;
}

std::optional<int> recorded_version(const Survey &survey, StoragePlace place, const VersionNumber &first)
{
    const std::vector<int> &all = survey.recorded_at(place);
    if (all.empty()) {
        return std::nullopt;
    }
    return survey.is_recorded(place, first.or_zero()) ? first.number : all.front();
}

std::optional<int> version_on_flash(const Survey &survey, const SlotNames &names, const Pair &pair)
{
    for (const ArchiveRole role : {pair.role, other(pair.role)}) {
        const StoragePlace slot = pair_of(survey, names, role).slot;
        if (survey.at(pair.flash).same_bytes(survey.at(slot))) {
            return version_held(survey, names, slot);
        }
    }
    if (pair.role != ArchiveRole::backup || !survey.versions.flash.number) {
        return std::nullopt;
    }
    const bool slot_claims_it = survey.at(pair.slot).good() && survey.recorded_at(pair.slot).empty() &&
                                survey.versions.flash.number == pair.in_force.number &&
                                !slot_was_overwritten(survey, names);
    return slot_claims_it ? std::nullopt : survey.versions.flash.number;
}

// ------------------------------------------------------------------------------------------ which one is right

struct RightOne {
    std::string address;
    std::string sha256;
    std::string told_as;  // as right of the row
};

std::string place_name(const Pair &pair, StoragePlace place)
{
    return place == pair.flash ? "flash" : address_of(place);
}

RightOne right_at(const Survey &survey, const Pair &pair, StoragePlace place)
{
    return {address_of(place), survey.at(place).sha256, place_name(pair, place)};
}

// Whole archives of the version in force; several with the same bytes are one.
std::vector<RightOne> holders(const Survey &survey, const SlotNames &names, const Pair &pair,
                              const std::array<StoragePlace, 2> &places)
{
    std::vector<RightOne> found;
    for (const StoragePlace place : places) {
        const bool holds = pair.in_force.number && survey.at(place).good() &&
                           version_held(survey, names, place) == pair.in_force.number;
        if (holds && (found.empty() || found.front().sha256 != survey.at(place).sha256)) {
            found.push_back(right_at(survey, pair, place));
        }
    }
    return found;
}

// No version is in force: the only one there is, is right.
std::optional<RightOne> only_one(const Survey &survey, const Pair &pair)
{
    const bool flash = survey.at(pair.flash).good();
    const bool slot = survey.at(pair.slot).good();
    if (pair.in_force.number || pair.in_force.unreadable || flash == slot) {
        return std::nullopt;
    }
    return right_at(survey, pair, flash ? pair.flash : pair.slot);
}

std::optional<RightOne> find_right(const Survey &survey, const SlotNames &names, const Pair &pair)
{
    const std::vector<RightOne> here = holders(survey, names, pair, pair.places());
    if (!here.empty()) {
        return here.size() == 1 ? std::optional(here.front()) : std::nullopt;
    }
    if (auto only = only_one(survey, pair)) {
        return only;
    }
    const Pair others = pair_of(survey, names, other(pair.role));
    const std::vector<RightOne> there = holders(survey, names, pair, others.places());
    if (there.size() == 1) {
        return RightOne{there.front().address, there.front().sha256, there.front().address};
    }
    if (const auto kept = kept_archive_of(pair.in_force.or_zero())) {
        return RightOne{address_of(*kept), kept->sha256, address_of(*kept)};
    }
    return std::nullopt;
}

// ------------------------------------------------------------------------------------------------- what is told

PlaceFinding told_place(const Survey &survey, const SlotNames &names, const Pair &pair, StoragePlace place)
{
    const ArchiveEvidence &evidence = survey.at(place);
    PlaceFinding told = told_of(place_name(pair, place), evidence);
    if (evidence.good()) {
        told.version = version_held(survey, names, place);
    }
    return told;
}

std::string shown_version(const std::optional<int> &version)
{
    return version ? "version " + std::to_string(*version) : "a version that nothing records";
}

// "on flash", "in slot kesta_backup0"
std::string where_of(const PlaceFinding &place)
{
    return place.place == "flash" ? "on flash" : "in slot " + place.place.substr(place.place.find(':') + 1);
}

std::string in_words(const PlaceFinding &place)
{
    const std::string where = where_of(place);
    switch (place.state) {
    case CopyState::good:
        return shown_version(place.version) + ", whole, " + where;
    case CopyState::damaged:
        return "damaged " + where + " (" + place.reason + ")";
    case CopyState::absent:
        return "none " + where;
    default:
        return "not to be read " + where + " (" + place.reason + ")";
    }
}

std::string in_force_text(const Pair &pair)
{
    return pair.in_force.unreadable ? "Which version is in force can't be read."
           : pair.in_force.number   ? "In force is version " + std::to_string(*pair.in_force.number) + "."
                                    : "No version is recorded as the one in force.";
}

// What an operator can do where no command is safe.
std::string what_is_left(const Survey &survey, const SlotNames &names, const Pair &pair)
{
    if (pair.in_force.unreadable) {
        return "So no copy is known to be right: check the NV memory and the system backup area, and write nothing to "
               "either place before.";
    }
    const bool both = survey.at(pair.flash).good() && survey.at(pair.slot).good();
    if (both) {
        return "Which of the two is right can't be told: compare them ('kestactl copy backup2tmp', 'kestactl copy "
               "cntbackup2tmp'), or save again; what is replaced is kept as a generation.";
    }
    for (const auto &[place, other_place] : {std::pair(pair.flash, pair.slot), std::pair(pair.slot, pair.flash)}) {
        if (survey.at(place).good() && !version_held(survey, names, place)) {
            return "Whether the whole one is it can't be told: look into it, and look at the other controllers with 'kestactl "
                   "verify'. If it is: kestactl copy archive " +
                   address_of(place) + " " + address_of(other_place) + ".";
        }
    }
    return "No whole copy of what is in force is left here. Look at the other controllers' flash with 'kestactl verify', "
           "or into " KESTA_FLASH_DIRECTORY "generations; otherwise make a new one with 'kestactl save'" +
           std::string(pair.role == ArchiveRole::accepted ? " and 'kestactl accept'." : ".");
}

Mend copies_of(const Survey &survey, const Pair &pair, const RightOne &right)
{
    Mend mend;
    for (const StoragePlace place : pair.places()) {
        if (survey.at(place).sha256 != right.sha256) {
            mend.push_back({"kestactl", "copy", "archive", right.address, address_of(place), "--sha256", right.sha256});
        }
    }
    return mend;
}

// Both hold the same, and nothing records that it is another version than the one in force.
bool is_agreed(const Survey &survey, const Pair &pair)
{
    const ArchiveEvidence &flash = survey.at(pair.flash);
    const bool recorded_otherwise = pair.in_force.number && !survey.recorded_at(pair.flash).empty() &&
                                    !survey.is_recorded(pair.flash, *pair.in_force.number);
    return flash.good() && flash.same_bytes(survey.at(pair.slot)) && !recorded_otherwise;
}

FindingState state_of(const SubjectFinding &finding)
{
    bool damaged = false;
    bool good = false;
    for (const PlaceFinding &place : finding.places) {
        if (place.state == CopyState::unreadable) {
            return FindingState::unreadable;
        }
        damaged = damaged || place.state == CopyState::damaged;
        good = good || place.state == CopyState::good;
    }
    return damaged || !good ? FindingState::damaged : FindingState::differs;
}

void decide(SubjectFinding &finding, const Survey &survey, const SlotNames &names, const Pair &pair)
{
    finding.state = state_of(finding);
    const std::string both = in_words(finding.places[0]) + "; " + in_words(finding.places[1]) + ". ";
    const bool untouchable =
        survey.at(pair.flash).state == CopyState::unreadable || survey.at(pair.slot).state == CopyState::unreadable;
    finding.mend.reset();
    if (untouchable) {
        finding.text = both +
                       "What can't be read may be whole: check its disk, or the limits of archives, and write "
                       "nothing to it before.";
        return;
    }
    const auto right = find_right(survey, names, pair);
    if (!right) {
        finding.text = both + in_force_text(pair) + " " + what_is_left(survey, names, pair);
        return;
    }
    finding.right = right->told_as;
    finding.mend = copies_of(survey, pair, *right);
    finding.text = both + in_force_text(pair) + " Right is " + right->told_as + ".";
}

// Without the names nobody knows which slot belongs to which role.
SubjectFinding without_names(const Survey &survey, ArchiveRole role)
{
    const SlotNames any{slot_of(StoragePlace::slot0), slot_of(StoragePlace::slot1)};
    const Pair pair = pair_of(survey, any, role);
    SubjectFinding finding{subject_of(role)};
    for (const StoragePlace place : {pair.flash, StoragePlace::slot0, StoragePlace::slot1}) {
        finding.places.push_back(told_place(survey, any, pair, place));
        finding.places.back().version.reset();
    }
    finding.state = finding.has_unreadable_place() ? FindingState::unreadable : FindingState::differs;
    finding.mend.reset();
    finding.text = "Which slot is its own can't be told: the names of the slots come first.";
    return finding;
}

}  // namespace

std::optional<int> version_held(const Survey &survey, const SlotNames &names, StoragePlace place)
{
    if (!survey.at(place).good()) {
        return std::nullopt;
    }
    const bool is_accepted =
        place == StoragePlace::accept_on_flash || (!is_on_flash(place) && slot_of(place) == names.accept);
    const Pair pair = pair_of(survey, names, is_accepted ? ArchiveRole::accepted : ArchiveRole::backup);
    if (const auto recorded = recorded_version(survey, place, pair.in_force)) {
        return recorded;
    }
    if (is_on_flash(place)) {
        return version_on_flash(survey, names, pair);
    }
    return !is_accepted && slot_was_overwritten(survey, names) ? survey.versions.accept.number : pair.in_force.number;
}

SubjectFinding find_archives(const Survey &survey, const SlotDecision &slots, ArchiveRole role)
{
    if (!slots.right) {
        return without_names(survey, role);
    }
    const SlotNames &names = *slots.right;
    const Pair pair = pair_of(survey, names, role);
    SubjectFinding finding{subject_of(role)};
    for (const StoragePlace place : pair.places()) {
        finding.places.push_back(told_place(survey, names, pair, place));
    }
    if (is_agreed(survey, pair)) {
        finding.right = finding.places[1].place;
        finding.text =
            shown_version(finding.places[1].version) + ", the same on flash and " + where_of(finding.places[1]);
    } else if (survey.at(pair.flash).absent() && survey.at(pair.slot).absent() && !pair.in_force.number &&
               !pair.in_force.unreadable) {
        finding.state = FindingState::absent;
        finding.text = "none, neither on flash nor " + where_of(finding.places[1]);
    } else {
        decide(finding, survey, names, pair);
    }
    return finding;
}

}  // namespace engine
