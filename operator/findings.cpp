#include "findings.h"

#include <algorithm>
#include <functional>

#include "find_archives.h"
#include "find_mirror.h"
#include "find_others.h"
#include "find_slots.h"
#include "storage_places.h"

namespace engine {
namespace {

// A subject that could not be looked at has a row all the same.
SubjectFinding told(const char *subject, const std::function<SubjectFinding()> &find)
{
    try {
        return find();
    } catch (const Failure &failure) {
        return {subject,      FindingState::unreadable,
                {},           std::nullopt,
                std::nullopt, failure.what() + (" " + failure.hint())};
    }
}

}  // namespace

Findings find_all()
{
    const Survey survey = survey_places();
    const SlotDecision slots = decide_slots(survey);
    Findings findings{survey.controller, {}};
    const auto add = [&findings](const char *subject, const std::function<SubjectFinding()> &find) {
        findings.rows.push_back(told(subject, find));
    };
    add("slots", [&] { return find_slots(survey, slots); });
    add("mirror", [&] { return find_mirror(survey, slots); });
    add("backup", [&] { return find_archives(survey, slots, ArchiveRole::backup); });
    add("accepted", [&] { return find_archives(survey, slots, ArchiveRole::accepted); });
    add("versions", [&] { return find_versions(survey, slots); });
    add("identity", [&] { return find_identity(survey); });
    add("locks", [&] { return find_locks(); });
    const bool backup_agrees = !findings.rows[2].counts();
    const bool accepted_agrees = !findings.rows[3].counts();
    add("leftovers", [&] { return find_leftovers(backup_agrees, accepted_agrees); });
    add("generations", [&] { return find_generations(); });
    return findings;
}

}  // namespace engine
