// Where the archives of this controller lie, and what its commands work with.
#pragma once

namespace engine {

inline constexpr const char *flash_backup = "/opt/kesta_sys/bakup/backup.tar.Z";
inline constexpr const char *flash_accept = "/opt/kesta_sys/bakup/accept.tar.Z";
inline constexpr const char *cache_backup = "/tmp/kesta_sys/tmp/backup.tar.Z";
inline constexpr const char *cache_check = "/tmp/kesta_sys/tmp/check.tar.Z";
inline constexpr const char *merge_backup = "/var/run/kesta_sys/tmp/backup.tar.Z";

// Only while it is made and tested.
inline constexpr const char *unfinished_archive = "/opt/kesta_sys/bakup/.save.tar.Z";

// Only while a flow brings an archive to flash.
inline constexpr const char *unfinished_flash_copy = "/opt/kesta_sys/bakup/tmp.tar.Z";

// Only while files of a group are put back.
inline constexpr const char *unfinished_restore_note = "/opt/kesta_sys/bakup/.restore";

// Where the files of local locks lie.
inline constexpr const char *local_lock_folder = "/var/run/kesta_sys/tmp/";

}  // namespace engine
