/*
 * Where everything lies that the library and its commands read, write or run on a controller. The paths are part of the
 * interface: commands of the environment, scripts and packages use them too. String literals, to be joined with others;
 * a folder ends with its slash.
 */
#ifndef KESTA_PATHS_H
#define KESTA_PATHS_H

/* Folders between which saved environments move, and the archives in them. */
#define KESTA_FLASH_DIRECTORY "/opt/kesta_sys/bakup/"
#define KESTA_TMP_CACHE "/tmp/kesta_sys/tmp/"
#define KESTA_MERGE_CACHE "/var/run/kesta_sys/tmp/" /* and the files of local locks */
#define KESTA_BACKUP_ARCHIVE "backup.tar.Z"
#define KESTA_ACCEPT_ARCHIVE "accept.tar.Z"  /* flash directory only */
#define KESTA_CHECK_ARCHIVE "check.tar.Z"    /* tmp cache only */
#define KESTA_FLASH_COPY_ARCHIVE "tmp.tar.Z" /* flash directory, only while a copy is under way */

/* A folder for each backup group below the first one, with its definition and its scripts. */
#define KESTA_GROUP_DIRECTORY "/etc/kesta_sys/"
#define KESTA_DEFINITION_NAME "define.xml"
#define KESTA_COPY_SCRIPT "env_copy_scr.sh"
#define KESTA_RESTORE_SCRIPT_BEGIN "env_restore1_" /* then which restore, and KESTA_SCRIPT_END */
#define KESTA_SCRIPT_END "_scr.sh"

/* Files of this controller. */
#define KESTA_OWN_NUMBER_FILE "/etc/mycntno"
#define KESTA_CONTROLLER_COUNT_FILE "/etc/cntnum"
#define KESTA_VERSION_FILE KESTA_GROUP_DIRECTORY "version"
#define KESTA_REBOOT_FILE KESTA_GROUP_DIRECTORY "reboot"
#define KESTA_CNTNO_FILE KESTA_GROUP_DIRECTORY "cntno"
#define KESTA_REBOOT_COUNT_FILE KESTA_GROUP_DIRECTORY "rebootcount"
#define KESTA_WWN_FILE KESTA_GROUP_DIRECTORY "wwn"
#define KESTA_GUID_FILE "/etc/cp_guid"
#define KESTA_HOSTS_FILE "/etc/inet/hosts"
#define KESTA_NODENAME_FILE "/etc/nodename"
#define KESTA_BOOT_ENVIRONMENT "/boot/solaris/bootenv.rc"
#define KESTA_INNERLOCK_FILE KESTA_MERGE_CACHE ".innerlock"

/* What a restore on another controller brings. */
#define KESTA_MASTER_VERSION_FILE KESTA_TMP_CACHE "env_restore2_rcpdir/master-version"
#define KESTA_MASTER_REBOOT_FILE KESTA_TMP_CACHE "env_restore2_rcpdir/master-reboot"

/* The tree in which an archive is opened to change the identity: a part for each controller, and "C", common to all. */
#define KESTA_STAGING_TREE "/var/run/kesta_sys/env_restore2"

/* Scripts for another controller, see remote_scripts.h. */
#define KESTA_SAMEFILE_SCRIPT KESTA_MERGE_CACHE "kesta_rsh_samefile.sh"
#define KESTA_TARZ_SCRIPT KESTA_MERGE_CACHE "kesta_rsh_tarz.sh"

/* Programs of the platform. */
#define KESTA_CPINFO_PROGRAM "/usr/sbin/cpinfo"
#define KESTA_EEPROM_PROGRAM "/usr/sbin/eeprom"
#define KESTA_VPD_TOOL "/opt/kesta_sys/sbin/env_vpdctl"
#define KESTA_DISTRIBUTE_SCRIPT "/opt/kesta_sys/sbin/env_tarz_assign_distribute.sh"
#define KESTA_COLLECT_SCRIPT "/opt/kesta_sys/sbin/env_tarz_assign_collect.sh"

#endif
