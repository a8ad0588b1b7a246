// Where the archives of this controller lie, and what its commands work with.
#pragma once

#include "kesta/paths.h"

namespace engine {

inline constexpr const char *flash_backup = KESTA_FLASH_DIRECTORY KESTA_BACKUP_ARCHIVE;
inline constexpr const char *flash_accept = KESTA_FLASH_DIRECTORY KESTA_ACCEPT_ARCHIVE;
inline constexpr const char *cache_backup = KESTA_TMP_CACHE KESTA_BACKUP_ARCHIVE;
inline constexpr const char *cache_check = KESTA_TMP_CACHE KESTA_CHECK_ARCHIVE;
inline constexpr const char *merge_backup = KESTA_MERGE_CACHE KESTA_BACKUP_ARCHIVE;

// The archives that are kept of what was overwritten, and what is recorded of changes.
inline constexpr const char *generations_folder = KESTA_FLASH_DIRECTORY "generations";

// Only while it is made and tested.
inline constexpr const char *unfinished_archive = KESTA_FLASH_DIRECTORY ".save.tar.Z";

// Only while a flow brings an archive to flash.
inline constexpr const char *unfinished_flash_copy = KESTA_FLASH_DIRECTORY KESTA_FLASH_COPY_ARCHIVE;

// Only while files of a group are put back.
inline constexpr const char *unfinished_restore_note = KESTA_FLASH_DIRECTORY ".restore";

}  // namespace engine
