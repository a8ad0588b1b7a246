// Which slot is the backup and which the accepted one: what the names say, and what the archives in the slots prove.
#pragma once

#include <optional>
#include <string>

#include "finding.h"
#include "storage_places.h"

namespace engine {

struct SlotNames {
    std::string backup;
    std::string accept;

    bool operator==(const SlotNames &) const = default;
    // Two different slots.
    bool valid() const;
};

struct SlotDecision {
    SlotNames memory;  // as each side has them
    SlotNames disk;
    bool unreadable = false;
    bool agree = false;              // both sides name the same two slots, and nothing speaks against them
    std::optional<SlotNames> right;  // what they should be; nothing: it can't be told
    std::string why;

    // The two commands' one: names them on both sides.
    Mend mend() const;
};

// Names are settled by the archives: a slot is proved to be the backup if its bytes are recorded as the version that is in
// force as the backup, or are those of flash:backup, and of the other role neither; and likewise the accepted one.
SlotDecision decide_slots(const Survey &survey);

SubjectFinding find_slots(const Survey &survey, const SlotDecision &decision);

}  // namespace engine
