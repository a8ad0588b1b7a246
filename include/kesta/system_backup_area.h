/*
 * Whole files of the system backup area, among them the two slots.
 */
#ifndef KESTA_SYSTEM_BACKUP_AREA_H
#define KESTA_SYSTEM_BACKUP_AREA_H

#include "kesta/base.h"

KESTA_BEGIN_DECLS

/* The slots: one is the accept slot, the other the backup slot. */
#define KESTA_SLOT0 "kesta_backup0"
#define KESTA_SLOT1 "kesta_backup1"

#define KESTA_FILE_READ 1
#define KESTA_FILE_WRITE 2

/*
 * Reads or writes a file of the system backup area whole.
 *
 * rw_flag  KESTA_FILE_READ (1) or KESTA_FILE_WRITE (2): the opposite of block access
 * data     read: receives a buffer of exactly *size bytes from the tracked allocator, which the
 *          caller frees with kestal_free_debug(*data, file, line, 0), also when the result is not
 *          0: a failed read or close may leave one. Set it to null before the call.
 *          write: *data points to the bytes
 * size     read: receives the size in bytes; write: the size
 *
 * Returns 0; the result of the final close if that is not 0; KESTA_ERR_ARGUMENT; KESTA_ERR.
 * Every handle is closed. Failures are logged at level 1.
 */
KESTA_API int kestal_backup_rw(const char *f_name, int rw_flag, void **data, unsigned int *size);

KESTA_END_DECLS

#endif
