// The twelve items of NV memory and the system backup area: which side of each is right.
#pragma once

#include "find_slots.h"
#include "finding.h"
#include "storage_places.h"

namespace engine {

// An item that only one side has is right there. Slot names are as the archives prove them; a version is as it is recorded
// of the archive, else the newer one, since numbers are only ever raised; an identity is as this controller's board has it.
SubjectFinding find_mirror(const Survey &survey, const SlotDecision &slots);

}  // namespace engine
