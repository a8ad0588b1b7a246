/*
 * Moving saved environments between the storage places, and bringing one back.
 *
 *   system backup area   slots kesta_backup0 and kesta_backup1, shared by all controllers
 *   flash directory      /opt/kesta_sys/bakup/       backup.tar.Z, accept.tar.Z
 *   tmp cache            /tmp/kesta_sys/tmp/         backup.tar.Z (and unpacked), check.tar.Z
 *   merge cache          /var/run/kesta_sys/tmp/     backup.tar.Z
 *
 * The archives are bzip2 tar archives, whatever their names say. The flows take no command lock:
 * that is the caller's business.
 */
#ifndef KESTA_BACKUP_FLOWS_H
#define KESTA_BACKUP_FLOWS_H

#include "kesta/base.h"

KESTA_BEGIN_DECLS

/*
 * System backup area to tmp cache.
 *
 * group      must not be null; not used otherwise
 * acceptflg  not 0: the accept slot; 0: the backup slot
 * name       may be null; receives the slot's name, 32 bytes
 * mode       1: make backup.tar.Z and unpack it there; else make check.tar.Z
 *
 * Returns 0, KESTA_ERR_ARGUMENT or KESTA_ERR. After a failed read or write the file is still moved
 * and unpacked as far as it is there; the result says that something failed.
 */
KESTA_API int kestal_backup2tmp(const char *group, int acceptflg, char *name, int mode);

/* Flash directory (accept.tar.Z if acceptflg is not 0, else backup.tar.Z) to the tmp cache's
 * backup.tar.Z. Returns 0, KESTA_ERR_ARGUMENT (null group) or KESTA_ERR. */
KESTA_API int kestal_cntbackup2tmp(const char *group, int acceptflg);

/* Flash backup.tar.Z to the current backup slot. Returns 0 or KESTA_ERR. */
KESTA_API int kestal_cntbackup2backup(void);

/*
 * Merge cache backup.tar.Z to the accept slot.
 *
 * acceptfile  in and out, 32 bytes: a slot name is used as it is; any other text is replaced by
 *             the name of the accept slot in force
 *
 * Returns 0, KESTA_ERR_ARGUMENT (null) or KESTA_ERR.
 */
KESTA_API int kestal_merge_file2accept(char *acceptfile);

/*
 * Runs the group's copy script. In InitConf boot mode, with the system backup area usable, first
 * brings the backup slot to the tmp cache (a failure there is only a warning) and to flash.
 *
 * Returns 0, KESTA_ERR_ARGUMENT (a group that is null, overlong or no shell word, see shell_word.h; nothing
 * is done then) or KESTA_ERR.
 */
KESTA_API int kestal_backup2copy(const char *group);

/*
 * Brings a slot onto flash (the switch stage) and runs one of the group's restore scripts (the
 * current stage).
 *
 * group           names the script directory /etc/kesta_sys/GROUP/; one shell word, see shell_word.h
 * switch_only     1: no current stage
 * area_flag       0 switch with the accept slot, 1 with the backup slot, 2 no switch and a
 *                 backup-side script, 3 no switch and an accept-side script; any other value:
 *                 switch with the slot that fileptr names
 * rbflg           1 update script, 2 reboot script, else none
 * distribution    not 0: its decimal text becomes part of the script's name
 * fileptr         may be null, else 32 bytes: not empty, the slot to switch with; empty, receives
 *                 the name of the slot that was looked up
 * skip_flashcopy  0: an update script is preceded by a copy of flash accept.tar.Z to the merge cache
 *
 * Returns 0 (also when that copy failed and the script was not run); KESTA_ERR_ARGUMENT;
 * KESTA_RESTORE_SWITCH_FAILED (1), KESTA_RESTORE_READ_FAILED (9), KESTA_RESTORE_SCRIPT_FAILED (2).
 */
KESTA_API int kestal_sysback2current(const char *group, int switch_only, int area_flag, int rbflg, int distribution,
                                     char *fileptr, int skip_flashcopy);

KESTA_END_DECLS

#endif
