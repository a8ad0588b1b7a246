// What a repair hands to its workers. Set before they are started.
#pragma once

#include "kesta/nv_repair.h"

namespace kesta {
extern int g_env_restore2_flag;  // 1 from a repair with supplied values until the next other one
extern int g_onoff;              // KESTA_REPAIR_FROM_*
extern KESTA_REPAIR_SYSVOL_DATA *g_sysvol_dataptr;
extern int g_sysvol_datarec;
extern char *g_sysvol_verback;
extern char *g_sysvol_verid;
}

using kesta::g_env_restore2_flag;
using kesta::g_onoff;
using kesta::g_sysvol_dataptr;
using kesta::g_sysvol_datarec;
using kesta::g_sysvol_verback;
using kesta::g_sysvol_verid;
