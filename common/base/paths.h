// Every path that the library reads, writes or runs, once. They are part of its contract: other programs use them too.
#pragma once

namespace kesta {

// Folders between which saved environments move.
inline constexpr const char *flash_directory = "/opt/kesta_sys/bakup/";
inline constexpr const char *tmp_cache = "/tmp/kesta_sys/tmp/";
inline constexpr const char *merge_cache = "/var/run/kesta_sys/tmp/";
inline constexpr const char *group_directory = "/etc/kesta_sys/";

// Files of this controller.
inline constexpr const char *own_number_file = "/etc/mycntno";
inline constexpr const char *controller_count_file = "/etc/cntnum";
inline constexpr const char *version_file = "/etc/kesta_sys/version";
inline constexpr const char *reboot_file = "/etc/kesta_sys/reboot";
inline constexpr const char *cntno_file = "/etc/kesta_sys/cntno";
inline constexpr const char *reboot_count_file = "/etc/kesta_sys/rebootcount";
inline constexpr const char *wwn_file = "/etc/kesta_sys/wwn";
inline constexpr const char *guid_file = "/etc/cp_guid";
inline constexpr const char *hosts_file = "/etc/inet/hosts";
inline constexpr const char *nodename_file = "/etc/nodename";
inline constexpr const char *boot_environment = "/boot/solaris/bootenv.rc";
inline constexpr const char *innerlock_file = "/var/run/kesta_sys/tmp/.innerlock";

// What a restore on another controller brings.
inline constexpr const char *master_version_file = "/tmp/kesta_sys/tmp/env_restore2_rcpdir/master-version";
inline constexpr const char *master_reboot_file = "/tmp/kesta_sys/tmp/env_restore2_rcpdir/master-reboot";

// The tree in which an archive is opened to change the identity: a part for each controller, and "C", common to all.
inline constexpr const char *staging_tree = "/var/run/kesta_sys/env_restore2";
inline constexpr const char *staged_hosts_file = "/var/run/kesta_sys/env_restore2/C/etc/inet/hosts";
inline constexpr const char *staged_guid_file = "/var/run/kesta_sys/env_restore2/C/etc/cp_guid";

// Programs of the platform. Command lines are formed of the first two as literals.
#define KESTA_CPINFO_PROGRAM "/usr/sbin/cpinfo"
#define KESTA_EEPROM_PROGRAM "/usr/sbin/eeprom"
inline constexpr const char *vpd_tool = "/opt/kesta_sys/sbin/env_vpdctl";
inline constexpr const char *distribute_script = "/opt/kesta_sys/sbin/env_tarz_assign_distribute.sh";
inline constexpr const char *collect_script = "/opt/kesta_sys/sbin/env_tarz_assign_collect.sh";

}  // namespace kesta
