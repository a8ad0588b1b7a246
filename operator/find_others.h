// What verify looks at besides the archives and their slots.
#pragma once

#include "find_slots.h"
#include "finding.h"
#include "storage_places.h"

namespace engine {

// This controller's number on flash and in the NV image, the backup's and the accepted one's. A number that was lost is
// set again from what is recorded of the archive.
SubjectFinding find_versions(const Survey &survey, const SlotDecision &slots);

// The identity values in all places against the board's.
SubjectFinding find_identity(const Survey &survey);

// Who holds the inner lock or a command lock. Nothing tells a dead holder from a slow one, so none is cleared.
SubjectFinding find_locks();

// What a killed command left behind. A restore is only completed over archives that agree.
SubjectFinding find_leftovers(bool backup_agrees, bool accepted_agrees);

// The catalogue of kept archives: each one read whole.
SubjectFinding find_generations();

}  // namespace engine
