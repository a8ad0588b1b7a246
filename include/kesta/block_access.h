/*
 * Reading and writing one block of the NV image, in NV memory and in the system backup area.
 *
 * Mind the flags: block access writes with 1 and reads with 2, access to the system backup area
 * alone (and kestal_backup_rw) reads with 1 and writes with 2. Programs rely on both.
 *
 * The access mode of the process says where a mirrored block lives:
 *   0  both places: a write goes to both, a read to the system backup area first (the initial mode)
 *   2  NV memory only
 *   3, or any other value: no access; calls succeed and touch nothing
 * Blocks without a mirror file always live in NV memory.
 */
#ifndef KESTA_BLOCK_ACCESS_H
#define KESTA_BLOCK_ACCESS_H

#include "kesta/base.h"
#include "kesta/system_backup_area.h"

KESTA_BEGIN_DECLS

#define KESTA_BLOCK_WRITE 1
#define KESTA_BLOCK_READ 2

#define KESTA_RWMODE_BOTH 0
#define KESTA_RWMODE_MEMORY 2
#define KESTA_RWMODE_NONE 3
#define KESTA_RWMODE_UNKNOWN (-2)

/*
 * Reads or writes a block under the access mode of the process.
 *
 * rw_flag         KESTA_BLOCK_WRITE or KESTA_BLOCK_READ
 * data, size      the block's bytes; the size is the caller's and may span several fields
 * sysback_result  may be null; receives the result of the system backup area, if that was used
 *
 * Returns 0 or KESTA_ERR. A read succeeds if either place has the block, a write only if both
 * take it. A failure of the system backup area moves the process to KESTA_RWMODE_MEMORY. Also 0,
 * with nothing done: a mirrored block without access, a block that has no place in NV memory,
 * another flag. Failures are logged at level 1.
 */
KESTA_API int kestal_non_volatile_rw_func(int block_id, int rw_flag, void *data, unsigned int size,
                                          int *sysback_result);

/*
 * The same in NV memory alone: up to five attempts, 100 ms apart.
 *
 * Returns 0, KESTA_ERR after five failures, KESTA_ERR_ARGUMENT for a null buffer, a size of 0 or
 * another flag. A block that has no place in NV memory gives 0 without a transfer.
 */
KESTA_API int kestal_non_volatile_rw_memory(int block_id, int rw_flag, void *data, unsigned int size);

/*
 * The same in the system backup area alone.
 *
 * rw_flag  KESTA_FILE_READ or KESTA_FILE_WRITE (the opposite numbers)
 *
 * Returns 0, KESTA_ERR (also for a null buffer to be written), KESTA_ERR_ARGUMENT for a null buffer to
 * be read into, or KESTA_NO_SYSBACK_NAME for a block without a mirror file. A stored item shorter than size
 * fills only its own length; a longer one is an error.
 */
KESTA_API int kestal_non_volatile_rw_sysback(int block_id, int rw_flag, void *data, unsigned int size);

/*
 * Settles the access mode from the boot mode and from the state of the system backup area.
 *
 * mode   receives the access mode
 * reset  1: ask again even if the mode is known
 *
 * Returns 0; KESTA_ERR if the boot mode can't be had (the mode is then KESTA_RWMODE_NONE);
 * KESTA_ERR_ARGUMENT for a null pointer.
 */
KESTA_API int kestal_rw_check_for_boot_mode(int *mode, int reset);

/* Sets the access mode as given, without any check. */
KESTA_API void kestal_rw_set_boot_mode(int mode);

/*
 * Makes the access mode unknown (KESTA_RWMODE_UNKNOWN) until the next check. Takes no lock:
 * a caller that races with block access takes the risk.
 */
KESTA_API void kestal_rw_check_reset(void);

KESTA_END_DECLS

#endif
