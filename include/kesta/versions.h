/*
 * Version numbers of saved environments, in the NV image and in the controller's flash files.
 *
 * A version is 1..2147483647; the one after 2147483647 is 1. 0 means never set, a negative number
 * that there is none.
 */
#ifndef KESTA_VERSIONS_H
#define KESTA_VERSIONS_H

#include "kesta/base.h"

KESTA_BEGIN_DECLS

/* Version areas. */
#define KESTA_VER_AREA_NUMBERING 1 /* the latest number handed out */
#define KESTA_VER_AREA_ACCEPT 2    /* the accepted environment */
#define KESTA_VER_AREA_CURRENT 3   /* what a controller runs with; one per controller */
#define KESTA_VER_AREA_BACKUP 4    /* the backup */
#define KESTA_VER_AREA_STATUS 5    /* a controller's status; one per controller */
#define KESTA_VER_AREA_REBOOT 6    /* in the system backup area only */

/* How a version is read: through the access mode of the process, or from NV memory first. */
#define KESTA_VERSION_BY_MODE 1
#define KESTA_VERSION_MEMORY_FIRST 0

/* What kestal_compare_version found. */
#define KESTA_VERSION_SAME 0
#define KESTA_VERSION_BACKUP_NEWER 1  /* the backup is the one to use */
#define KESTA_VERSION_CURRENT_NEWER 2 /* the controller's own configuration is newer */

/*
 * Read and set the number of an area. The plain forms take and release the inner lock, the _nolock
 * forms are for a caller that holds it.
 *
 * verarea  KESTA_VER_AREA_*
 * cntno    controller number, 0..3; checked for every area. It is also the number that the inner
 *          lock is taken with.
 * mode     KESTA_VERSION_BY_MODE, or any other value: NV memory first, and the access mode if that
 *          gives no number of 0 or more
 *
 * Reading returns the number; KESTA_ERR (also the number -1: nobody has the area) or
 * KESTA_ERR_ARGUMENT. Setting returns 0, KESTA_ERR or KESTA_ERR_ARGUMENT. A failed release of the
 * inner lock is KESTA_ERR though the number was read or set. Failures are logged at level 1, a
 * failed first reading at level 2.
 */
KESTA_API int kestal_read_version_nolock(int verarea, int cntno, int mode);
KESTA_API int kestal_set_version_nolock(int verarea, int cntno, int value);
KESTA_API int kestal_read_version(int verarea, int cntno, int mode);
KESTA_API int kestal_set_version(int verarea, int cntno, int value);

/*
 * Tells which is newer: the backup, or what this controller runs with (its flash version file).
 *
 * cntno      controller number, 0..3
 * backup     version of the backup; negative: it is read
 * numbering  the latest number handed out; negative: it is read
 *
 * Returns KESTA_VERSION_SAME, KESTA_VERSION_BACKUP_NEWER (also where both are equally far from the
 * latest number), KESTA_VERSION_CURRENT_NEWER; KESTA_ERR or KESTA_ERR_ARGUMENT. If the flash file
 * can't be read, the own controller's inner-lock slot is cleared though it was not taken.
 */
KESTA_API int kestal_compare_version(int cntno, int backup, int numbering);

/*
 * How far it is from one version to another: to - from. Where that is negative, one less: the
 * distance across the wrap at 2147483647 less 2^31, so that it is smaller than any without a wrap.
 */
KESTA_API int kestal_distance_version(int from, int to);

/* Flash version files: one line with one number. */
#define KESTA_FLASH_VERSION 0        /* /etc/kesta_sys/version */
#define KESTA_FLASH_REBOOT 1         /* /etc/kesta_sys/reboot */
#define KESTA_FLASH_CNTNO 2          /* /etc/kesta_sys/cntno */
#define KESTA_FLASH_REBOOTCOUNT 3    /* /etc/kesta_sys/rebootcount */
#define KESTA_FLASH_MASTER_VERSION 4 /* .../env_restore2_rcpdir/master-version: read only */
#define KESTA_FLASH_MASTER_REBOOT 5  /* .../env_restore2_rcpdir/master-reboot: read only */

/*
 * Reads a flash version file. Its first word counts, at most 10 characters of it.
 *
 * version  receives the number; -1 if there is no file; untouched on failure
 * f_type   KESTA_FLASH_*
 *
 * Returns 0; KESTA_ERR (the file can't be read, or holds no number); KESTA_ERR_ARGUMENT.
 */
KESTA_API int kestal_read_flash_version_file(int *version, int f_type);

/*
 * Writes a flash version file. A failed write leaves an empty or cut file behind.
 *
 * version  -1 or more; -1 is written as such
 * f_type   KESTA_FLASH_VERSION .. KESTA_FLASH_REBOOTCOUNT
 *
 * Returns 0, KESTA_ERR or KESTA_ERR_ARGUMENT.
 */
KESTA_API int kestal_set_flash_version_file(int version, int f_type);

/* A switch of the process for callers that test it; 1 at start. Nothing in the library reads it. */
KESTA_API extern int g_version_file_sync;
KESTA_API void kestal_set_version_file_sync(void);
KESTA_API void kestal_reset_version_file_sync(void);

KESTA_END_DECLS

#endif
