// What a repair hands to its workers. Set before they are started.
#pragma once

#include "kesta/nv_repair.h"

namespace kesta {

struct RepairState {
    int with_supplied_values = 0;  // 1 from a repair with supplied values until the next other one
    int direction = 0;             // KESTA_REPAIR_FROM_*
    KESTA_REPAIR_SYSVOL_DATA *records = nullptr;
    int record_count = 0;
    char *backup_version = nullptr;
    char *numbering_version = nullptr;
};
extern RepairState repair_state;

// As in a process that has just started.
inline void reset_repair_state() { repair_state = {}; }

}  // namespace kesta

using kesta::repair_state;
