// What the identity flows know for the life of the process, and the slots that they chose last.
#pragma once

#include "kesta/identity.h"
#include "kesta/nv_image.h"
#include "text_field.h"

namespace kesta {
using GuidText = TextField<KESTA_GUID_TEXT_LENGTH>;

// Where kestal_update_vpdinfo_collect_close() puts the staging tree.
inline constexpr int to_flash = 0;  // the identity stays on this controller
inline constexpr int to_disk = 1;

struct VpdState {
    int controllers = -1;  // that the flows treat; -1 before the first eeprom edit
    int own_number = -1;   // 0 or 1; -1 until it is known
    char accept_name[KESTA_AREA_NAME_SIZE] = {};
    char backup_name[KESTA_AREA_NAME_SIZE] = {};
};
extern VpdState vpd_state;

// As in a process that has just started.
inline void reset_vpd_state() { vpd_state = {}; }
}  // namespace kesta

using kesta::vpd_state;
