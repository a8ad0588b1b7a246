// What the calls of the contract refuse on every platform, before anything is transferred.
#pragma once

#include <errno.h>
#include <stdint.h>
#include <string.h>

#include "sanfwctl.h"
#include "settings.h"

namespace platform {

inline constexpr uint64_t nv_region_size = 32768;
inline constexpr unsigned backup_name_size = 64;  // with its terminator

// 0, or why a transfer of NV memory is refused.
inline int check_nv_access(const cpfw_nv_region_t *region, const cpfw_nv_access_t *access, int count)
{
    if (!region || !access || count != 1 || !access->buffer) {
        return -EINVAL;
    }
    if (*region >= static_cast<unsigned>(settings().nv_regions)) {
        return -ENXIO;
    }
    if (access->length > nv_region_size || access->offset > nv_region_size - access->length) {
        return -ERANGE;
    }
    return 0;
}

// A name of the system backup area.
inline bool is_backup_name(const char *name)
{
    return name && name[0] != '\0' && name[0] != '.' && !strchr(name, '/') && strlen(name) < backup_name_size;
}

inline bool is_open_mode(const char *mode) { return mode && (strcmp(mode, "r") == 0 || strcmp(mode, "w") == 0); }

}  // namespace platform
