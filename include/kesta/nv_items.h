/*
 * The items that the controllers keep in NV memory and in the system backup area: one table of all of them.
 *
 * An item is named by its block ID in block access (block_access.h). Most have a field in the NV image (nv_image.h),
 * some of these are mirrored in a file of the system backup area, and one lives in such a file only.
 *
 *     unsigned int count = 0;
 *     const KESTA_NV_ITEM *items = kesta_nv_items(&count);
 *     for (unsigned int i = 0; i < count; ++i) {
 *         printf("%3d %s%s\n", items[i].block_id, items[i].name, items[i].mirror ? ", mirrored" : "");
 *     }
 */
#ifndef KESTA_NV_ITEMS_H
#define KESTA_NV_ITEMS_H

#include "kesta/base.h"

KESTA_BEGIN_DECLS

/* What an item holds. */
#define KESTA_NV_KIND_NUMBER 1       /* one int32_t */
#define KESTA_NV_KIND_VERSION 2      /* a version number, int32_t; 0: never set (versions.h) */
#define KESTA_NV_KIND_SLOT_NAME 3    /* the name of an archive slot, padded with NUL (area_files.h) */
#define KESTA_NV_KIND_GROUP_NAME 4   /* the name of a group, padded with NUL */
#define KESTA_NV_KIND_TEXT 5         /* any other text, padded with NUL */
#define KESTA_NV_KIND_BYTES 6        /* bytes that are no text */
#define KESTA_NV_KIND_COMMAND_LOCK 7 /* KESTA_COMMAND_LOCKINFO: only through command_lock.h */
#define KESTA_NV_KIND_INNER_LOCK 8   /* KESTA_INNERLOCK_BUF: only through inner_lock.h */

typedef struct {
    int block_id;
    const char *name;         /* in the words of operators: "backup-name", "version-cnt2" */
    int kind;                 /* KESTA_NV_KIND_* */
    int id_type;              /* KESTA_IDTYPE_* where every controller has one of its own, else 0 */
    int controller;           /* whose it is, 0..3; -1: all controllers share it */
    int version_area;         /* KESTA_VER_AREA_* of a version or status, else 0 */
    int offset;               /* bytes from the start of the NV image; -1: it has no place in NV memory */
    unsigned int size;        /* bytes of its field */
    unsigned int value_size;  /* bytes from the field's start that hold the value; the others stay 0 */
    const char *mirror;       /* its file in the system backup area; a null pointer: it is not mirrored */
    unsigned int mirror_size; /* bytes that a repair copies; 0 where it is not mirrored */
} KESTA_NV_ITEM;

/*
 * The table, by ascending block ID.
 *
 * count  receives the number of items; may be null
 *
 * Never null and never fails; the table and its texts are constant and stay for as long as the library is loaded. Logs
 * nothing, takes no lock, may be called from any thread.
 *
 * A mirror file is written with value_size bytes by who writes one item (a read of fewer bytes than the file has is
 * refused by block access), and with mirror_size bytes by a repair; so read it with mirror_size bytes into zeros.
 */
KESTA_API const KESTA_NV_ITEM *kesta_nv_items(unsigned int *count);

KESTA_END_DECLS

#endif
