// The names of the two slots of the system backup area: one is the accept slot, the other the backup slot.
#pragma once

#include <string.h>

#include "kesta/system_backup_area.h"

namespace kesta {

static_assert(sizeof(KESTA_SLOT0) == sizeof(KESTA_SLOT1));

// Text or a field: what stands behind the terminator is not looked at.
inline bool same_slot_name(const char *name, const char *slot) { return strncmp(name, slot, sizeof(KESTA_SLOT0)) == 0; }

inline bool is_slot_name(const char *name)
{
    return same_slot_name(name, KESTA_SLOT0) || same_slot_name(name, KESTA_SLOT1);
}

// The slot that the name is not; null for another name.
inline const char *other_slot(const char *name)
{
    if (same_slot_name(name, KESTA_SLOT0)) {
        return KESTA_SLOT1;
    }
    return same_slot_name(name, KESTA_SLOT1) ? KESTA_SLOT0 : nullptr;
}

}  // namespace kesta
