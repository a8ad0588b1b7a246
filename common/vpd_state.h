// What the identity flows know for the life of the process, and the slots that they chose last.
#pragma once

#include "kesta/nv_image.h"

namespace kesta {
extern int g_vpd_cntnum;  // controllers that the flows treat; -1 before the first eeprom edit
extern int g_vpd_cnt_no;  // own number, 0 or 1; -1 until it is known
extern char g_accept_filename[KESTA_AREA_NAME_SIZE];
extern char g_backup_filename[KESTA_AREA_NAME_SIZE];
}

using kesta::g_vpd_cntnum;
using kesta::g_vpd_cnt_no;
using kesta::g_accept_filename;
using kesta::g_backup_filename;
