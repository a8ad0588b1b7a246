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

extern int g_vpd_cntnum;  // controllers that the flows treat; -1 before the first eeprom edit
extern int g_vpd_cnt_no;  // own number, 0 or 1; -1 until it is known
extern char g_accept_filename[KESTA_AREA_NAME_SIZE];
extern char g_backup_filename[KESTA_AREA_NAME_SIZE];
}

using kesta::g_vpd_cntnum;
using kesta::g_vpd_cnt_no;
using kesta::g_accept_filename;
using kesta::g_backup_filename;
