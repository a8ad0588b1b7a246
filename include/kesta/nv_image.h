/*
 * The NV image that all controllers share, and the block IDs that name its fields.
 *
 * The image is a persisted format, shared with other programs on all controllers: 664 bytes,
 * little-endian, at offset 0 of NV region 2. Character arrays are padded with NUL and have no
 * terminator when full.
 */
#ifndef KESTA_NV_IMAGE_H
#define KESTA_NV_IMAGE_H

#include <stdint.h>

#include "kesta/base.h"

KESTA_BEGIN_DECLS

#define KESTA_AREA_NAME_SIZE 32  /* a slot name field */
#define KESTA_GROUP_NAME_SIZE 16 /* a group name field */
#define KESTA_IDENTITY_SIZE 20   /* a WWN, serial number or GUID field */
#define KESTA_NV_IMAGE_REGION 2u /* NV region that holds the image */

/* Requests to synchronise NV memory. */
typedef struct {
    char synced;
    char req;
    char rfu[6];
} KESTA_SYNC;

typedef struct {
    int32_t request[KESTA_CONTROLLERS];
    int32_t result[KESTA_CONTROLLERS];
} KESTA_RESTOREINFO;

/* Names of the archive slots in force. */
typedef struct {
    char last_backup_filename[KESTA_AREA_NAME_SIZE];
    char accept_filename[KESTA_AREA_NAME_SIZE];
    char old_backup_filename[KESTA_AREA_NAME_SIZE];
    char filler3[KESTA_AREA_NAME_SIZE];
} KESTA_STSBAKFILE;

/* One command lock. */
typedef struct {
    int32_t status;
    int32_t filler;
    int64_t sign;
    int64_t timeout;
} KESTA_COMMAND_LOCKINFO;

typedef struct {
    KESTA_COMMAND_LOCKINFO command[KESTA_CONTROLLERS];
} KESTA_LOCKINFO;

typedef struct {
    int32_t version;
    int32_t status;
} KESTA_CNT_VERSIONINFO;

typedef struct {
    int32_t id; /* the numbering version: the latest number handed out */
    int32_t last_backup;
    int32_t work_backup;
    int32_t old_backup;
    KESTA_CNT_VERSIONINFO cnt[KESTA_CONTROLLERS];
} KESTA_VERSIONINFO;

typedef struct {
    KESTA_RESTOREINFO restoreinfo;
    char groupinfo[KESTA_GROUP_NAME_SIZE];
    KESTA_STSBAKFILE sysbakinfo;
    KESTA_LOCKINFO lockinfo;
    KESTA_VERSIONINFO versioninfo;
} KESTA_CNT_COMMON_TBL;

/* One controller's inner-lock slot; all zero bytes: free. */
typedef struct {
    int32_t status;  /* 0 free, 1 held */
    int32_t filler;  /* written as 0 */
    int64_t timeout; /* the holder's token, 1..10000, in spite of its name */
} KESTA_INNERLOCK_BUF;

typedef struct {
    char alivemond[8];
    char magic[4];   /* "ENVV", no terminator */
    int32_t version; /* layout version, 2 */
    KESTA_SYNC sync_flag;
    KESTA_CNT_COMMON_TBL cnttbl;
    char wwn[KESTA_IDENTITY_SIZE];
    char serialno[KESTA_IDENTITY_SIZE];
    char guid[KESTA_IDENTITY_SIZE];
    char filler[196];
    KESTA_INNERLOCK_BUF innerlock[KESTA_CONTROLLERS];
} KESTA_VOLATILE;

/*
 * Block IDs. A block names one field of the image; twelve of them are mirrored, one file each,
 * in the system backup area.
 */
#define KESTA_BLOCK_RESTORE_REQ_CNT0 1  /* .. 4 */
#define KESTA_BLOCK_RESTORE_RES_CNT0 11 /* .. 14 */
#define KESTA_BLOCK_GROUP 21
#define KESTA_BLOCK_BACKUP_NAME 31 /* mirrored */
#define KESTA_BLOCK_ACCEPT_NAME 32 /* mirrored */
#define KESTA_BLOCK_OLD_BACKUP_NAME 33
#define KESTA_BLOCK_LOCK_CNT0 41         /* .. 44 */
#define KESTA_BLOCK_NUMBERING_VERSION 51 /* mirrored */
#define KESTA_BLOCK_BACKUP_VERSION 52    /* mirrored */
#define KESTA_BLOCK_ACCEPT_VERSION 53
#define KESTA_BLOCK_OLD_BACKUP_VERSION 54
#define KESTA_BLOCK_REBOOT_VERSION 55  /* in the system backup area only: no place in NV memory */
#define KESTA_BLOCK_VERSION_CNT0 61    /* .. 64, mirrored */
#define KESTA_BLOCK_STATUS_CNT0 71     /* .. 74 */
#define KESTA_BLOCK_INNERLOCK_CNT0 101 /* .. 104 */
#define KESTA_BLOCK_WWN 201            /* mirrored */
#define KESTA_BLOCK_SERIALNO 202       /* mirrored */
#define KESTA_BLOCK_GUID 203           /* mirrored */

/* Items of which every controller has one of its own. */
#define KESTA_IDTYPE_RESTORE_REQ 1
#define KESTA_IDTYPE_RESTORE_RES 2
#define KESTA_IDTYPE_LOCK 3
#define KESTA_IDTYPE_VERSION 4
#define KESTA_IDTYPE_STATUS 5
#define KESTA_IDTYPE_INNERLOCK 6

/*
 * Turns a per-controller item into its block ID.
 *
 * id_type   KESTA_IDTYPE_*
 * cnt_num   controller number, 0..3
 * block_id  receives the block ID; untouched on error
 *
 * Returns 0, or KESTA_ERR_ARGUMENT (logged at level 1; the controller number is checked first,
 * then the pointer, then the type). Nothing is logged on success.
 */
KESTA_API int kestal_get_block_id(int id_type, int cnt_num, int *block_id);

KESTA_END_DECLS

#endif
