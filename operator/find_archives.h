// The two archives of a role, on flash and in its slot: which one is whole and in force.
#pragma once

#include "find_slots.h"
#include "finding.h"
#include "storage_places.h"

namespace engine {

enum class ArchiveRole { backup, accepted };

// The version in force is the number of the role's version area. A place holds the version that is recorded for its
// bytes; where nothing is, a slot holds its role's, flash the one of a slot with the same bytes, and flash:backup else
// the one of this controller's version file, unless the slot claims the same number with other bytes. Right is a whole
// archive of the version in force: in the pair, in the other one, or among the generations.
SubjectFinding find_archives(const Survey &survey, const SlotDecision &slots, ArchiveRole role);

// The version that a place holds; nothing: nothing tells. The names say which slot is which.
std::optional<int> version_held(const Survey &survey, const SlotNames &names, StoragePlace place);

}  // namespace engine
