/*
 * Repair of the twelve mirrored items between NV memory and the system backup area. One repair at a time
 * in a process.
 */
#ifndef KESTA_NV_REPAIR_H
#define KESTA_NV_REPAIR_H

#include <stddef.h>

#include "kesta/base.h"

KESTA_BEGIN_DECLS

#define KESTA_REPAIR_FROM_MEMORY 0  /* NV memory to the system backup area */
#define KESTA_REPAIR_FROM_SYSBACK 1 /* system backup area to NV memory */

/* A value that the caller supplies for a block. */
typedef struct {
    char *data; /* at least as many bytes as the block has */
    int id;     /* block ID */
} KESTA_REPAIR_SYSVOL_DATA;

/*
 * Looks at both sides, and copies all items from the good one to the bad one. A side is bad if the name
 * of its backup or accept slot can't be read, or is none of the two slots.
 *
 * data, count  not used for anything but the record of the call
 *
 * Returns 0 (repaired, or nothing to do), KESTA_ERR (both sides bad, or a copy failed).
 */
KESTA_API int kestal_repair_memory_sysback(KESTA_REPAIR_SYSVOL_DATA *data, int count);

/*
 * Copies all items to NV memory, in twelve threads: some values come from the caller's records (blocks
 * 31, 32, 201, 202, 203), the controllers' versions from this controller's flash version file, the others
 * from the system backup area. Not longer than two minutes: what hangs then is cancelled.
 *
 * verback, verid  4 bytes each, receive the backup and numbering version that were read
 *
 * Returns 0, KESTA_ERR, or KESTA_ERR_ARGUMENT for a null verback or verid. The records must stay until then.
 */
KESTA_API int kestal_repair_memory_from_sysback(KESTA_REPAIR_SYSVOL_DATA *data, int count, char *verback, char *verid);

/*
 * The copies by themselves: one after the other, or in threads after kestal_repair_memory_from_sysback.
 *
 * Returns 0; 1 if a copy of a sequence failed; KESTA_ERR if a thread failed, or did not end.
 */
KESTA_API int kestal_repair_allitem(int direction, KESTA_REPAIR_SYSVOL_DATA *data, int count);

/* Copies one block. Returns 0, KESTA_ERR (a transfer was refused or failed) or KESTA_ERR_ARGUMENT (another
 * direction). */
KESTA_API int kestal_repair_rw(int direction, int block_id, size_t length);

/* Body of a thread: copies the item whose index (0..11) the pointer points to; its result is that of
 * kestal_repair_rw, as an intptr_t. */
KESTA_API void *kestal_repair_thread_func(void *index);

/* Returns 0 if the name is one of the two slots and length is 13, else KESTA_ERR; KESTA_ERR_ARGUMENT for
 * null. */
KESTA_API int kestal_repair_filename_check(char *name, int length);

KESTA_END_DECLS

#endif
