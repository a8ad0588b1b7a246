#include "find_slots.h"

#include <kesta/kesta.h>

#include "appliance_state.h"

namespace engine {
namespace {

constexpr int proofs_against_names = 2;  // both sides name them: one archive alone may have been put there

enum class Proof { none, backup, accept };

// What the archive in a slot proves of the slot.
Proof proof_of(const Survey &survey, StoragePlace slot)
{
    if (!survey.at(slot).good()) {
        return Proof::none;
    }
    bool backup = survey.is_recorded(slot, survey.versions.backup.or_zero());
    bool accept = survey.is_recorded(slot, survey.versions.accept.or_zero());
    if (survey.recorded_at(slot).empty()) {
        backup = survey.at(slot).same_bytes(survey.at(StoragePlace::backup_on_flash));
        accept = survey.at(slot).same_bytes(survey.at(StoragePlace::accept_on_flash));
    }
    return backup == accept ? Proof::none : backup ? Proof::backup : Proof::accept;
}

std::string name_in(const Content &content) { return content ? field_text(*content) : ""; }

SlotNames names_on(const MirrorState &mirror, Side side)
{
    return {name_in(mirror.items[0].at(side)), name_in(mirror.items[1].at(side))};
}

const SlotNames straight{KESTA_SLOT0, KESTA_SLOT1};
const SlotNames inverted{KESTA_SLOT1, KESTA_SLOT0};

// For 0 the backup and 1 the accepted one, and for the other way round.
struct Proofs {
    int straight = 0;
    int inverted = 0;

    int of(const SlotNames &names) const { return names == engine::straight ? straight : inverted; }
    int against(const SlotNames &names) const { return names == engine::straight ? inverted : straight; }
};

Proofs proofs_of(const Survey &survey)
{
    if (survey.at(StoragePlace::slot0).same_bytes(survey.at(StoragePlace::slot1))) {
        return {};  // either way is right
    }
    const Proof first = proof_of(survey, StoragePlace::slot0);
    const Proof second = proof_of(survey, StoragePlace::slot1);
    return {(first == Proof::backup) + (second == Proof::accept), (first == Proof::accept) + (second == Proof::backup)};
}

void settle(SlotDecision &decision, const SlotNames &names, const std::string &why)
{
    decision.right = names;
    decision.why = why;
}

void decide_where_they_agree(SlotDecision &decision, const Proofs &proofs)
{
    const SlotNames &names = decision.memory;
    if (proofs.against(names) >= proofs_against_names && proofs.of(names) == 0) {
        settle(decision, names == straight ? inverted : straight,
               "each of the two slots holds the archive of the other");
        return;
    }
    settle(decision, names, "");
    decision.agree = true;
}

void decide_by_evidence(SlotDecision &decision, const Survey &survey, const Proofs &proofs)
{
    const bool memory = decision.memory.valid();
    const bool disk = decision.disk.valid();
    const ArchiveEvidence &first = survey.at(StoragePlace::slot0);
    const ArchiveEvidence &second = survey.at(StoragePlace::slot1);
    if ((proofs.straight > 0) != (proofs.inverted > 0)) {
        settle(decision, proofs.straight > 0 ? straight : inverted, "the archives in the slots prove it");
    } else if (proofs.straight > 0) {
        decision.why = "what the slots hold speaks for both ways";
    } else if (memory != disk) {
        settle(decision, memory ? decision.memory : decision.disk,
               memory ? "NV memory names two slots" : "the system backup area names two slots");
    } else if ((first.absent() && second.absent()) || first.same_bytes(second)) {
        settle(decision, memory ? decision.memory : straight,
               first.absent() ? "both slots are empty" : "both slots hold the same archive");
    } else {
        decision.why = "what the slots hold proves nothing";
    }
}

PlaceFinding place_of(const char *name, const SlotNames &names, bool unreadable, bool absent)
{
    PlaceFinding place;
    place.place = name;
    place.state = unreadable      ? CopyState::unreadable
                  : names.valid() ? CopyState::good
                  : absent        ? CopyState::absent
                                  : CopyState::damaged;
    place.reason = "backup '" + names.backup + "', accept '" + names.accept + "'";
    return place;
}

}  // namespace

bool SlotNames::valid() const { return is_slot(backup) && is_slot(accept) && backup != accept; }

Mend SlotDecision::mend() const
{
    return {{"kestactl", "slot", "switch", "--backup", right->backup, "--accept", right->accept}};
}

SlotDecision decide_slots(const Survey &survey)
{
    const MirrorState &mirror = survey.mirror;
    SlotDecision decision;
    decision.memory = names_on(mirror, Side::memory);
    decision.disk = names_on(mirror, Side::disk);
    for (std::size_t i = 0; i < 2; ++i) {
        decision.unreadable =
            decision.unreadable || mirror.items[i].memory_unreadable || mirror.items[i].disk_unreadable;
    }
    const Proofs proofs = proofs_of(survey);
    if (decision.unreadable) {
        const SlotNames &names = decision.memory.valid() ? decision.memory : decision.disk;
        if (names.valid()) {
            settle(decision, names, "");  // for reading: nothing is written while one side can't be read
        }
    } else if (decision.memory.valid() && decision.memory == decision.disk) {
        decide_where_they_agree(decision, proofs);
    } else {
        decide_by_evidence(decision, survey, proofs);
    }
    return decision;
}

SubjectFinding find_slots(const Survey &survey, const SlotDecision &decision)
{
    const MirrorState &mirror = survey.mirror;
    SubjectFinding finding{"slots"};
    finding.places = {place_of("memory", decision.memory,
                               mirror.items[0].memory_unreadable || mirror.items[1].memory_unreadable, false),
                      place_of("disk", decision.disk,
                               mirror.items[0].disk_unreadable || mirror.items[1].disk_unreadable,
                               !mirror.items[0].disk && !mirror.items[1].disk)};
    const std::string both =
        "NV memory says " + finding.places[0].reason + ", the system backup area " + finding.places[1].reason;
    if (decision.unreadable) {
        finding.state = FindingState::unreadable;
        finding.mend.reset();
        finding.text = both + ". A name can't be read: check the NV memory and the disk of the system backup area.";
    } else if (decision.agree) {
        finding.right = "memory";
        finding.text = "backup " + decision.right->backup + ", accept " + decision.right->accept;
    } else if (decision.right) {
        finding.state = FindingState::differs;
        finding.right = decision.memory == *decision.right ? std::optional<std::string>("memory")
                        : decision.disk == *decision.right ? std::optional<std::string>("disk")
                                                           : std::nullopt;
        finding.mend = decision.mend();
        finding.text = both + ". The backup slot is " + decision.right->backup + ": " + decision.why + ".";
    } else {
        finding.state = FindingState::differs;
        finding.mend.reset();
        finding.text = both + ". Which slot is the backup can't be told: " + decision.why +
                       ". Compare the two with 'kestactl status --archives' on each controller, then name them with "
                       "'kestactl slot switch'.";
    }
    return finding;
}

}  // namespace engine
