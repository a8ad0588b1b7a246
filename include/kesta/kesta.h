/*
 * libkesta: the saved environments of a storage appliance. This header includes all the others.
 */
#ifndef KESTA_KESTA_H
#define KESTA_KESTA_H

#include "kesta/alloc.h"
#include "kesta/area_files.h"
#include "kesta/backup_definition.h"
#include "kesta/backup_flows.h"
#include "kesta/base.h"
#include "kesta/block_access.h"
#include "kesta/cause.h"
#include "kesta/command_lock.h"
#include "kesta/controller.h"
#include "kesta/identity.h"
#include "kesta/inner_lock.h"
#include "kesta/local_lock.h"
#include "kesta/nv_dump.h"
#include "kesta/nv_image.h"
#include "kesta/nv_items.h"
#include "kesta/nv_repair.h"
#include "kesta/nv_sync.h"
#include "kesta/paths.h"
#include "kesta/process.h"
#include "kesta/remote_scripts.h"
#include "kesta/shell_word.h"
#include "kesta/system_backup_area.h"
#include "kesta/versions.h"

#endif
