// Looking up which slot of the system backup area is in force.
#pragma once

#include "kesta/area_files.h"
#include "text_field.h"

namespace kesta {

inline int read_accept_slot_name(AreaName &name) { return kestal_area_file_rw(KESTA_BLOCK_READ, name.data(), nullptr); }

inline int read_backup_slot_name(AreaName &name) { return kestal_area_file_rw(KESTA_BLOCK_READ, nullptr, name.data()); }

}  // namespace kesta
