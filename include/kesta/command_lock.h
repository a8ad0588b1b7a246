/*
 * The global command lock: it keeps commands on all controllers from running at the same time.
 *
 * Each controller has one slot in the NV image. A lock carries an identifier, which the caller
 * keeps and shows again to release it: a decimal text, the second in which the lock was first
 * taken. docs/locks.md shows the states of a slot and which type of lock to take.
 */
#ifndef KESTA_COMMAND_LOCK_H
#define KESTA_COMMAND_LOCK_H

#include "kesta/base.h"
#include "kesta/nv_image.h"

KESTA_BEGIN_DECLS

#define KESTA_LOCK_IDENTIFIER_SIZE 64

/* Types of lock. */
#define KESTA_LOCK_TYPE1 1 /* exclusive; can be suspended, and converted to a running backup */
#define KESTA_LOCK_TYPE2 2 /* may coexist with others of its type that are taken together with it */
#define KESTA_LOCK_TYPE3 3 /* exclusive */

/* Status of a slot. */
#define KESTA_LOCK_STATUS_FREE 0 /* suspended if its sign is not 0 */
#define KESTA_LOCK_STATUS_TYPE1 1
#define KESTA_LOCK_STATUS_BACKUP 2 /* a type-1 lock converted by kestal_backup_lock */
#define KESTA_LOCK_STATUS_TYPE2 3
#define KESTA_LOCK_STATUS_TYPE3 4

/*
 * Takes the lock of a controller. Does not wait.
 *
 * cnt_num          controller number, 0..3
 * lock_type        KESTA_LOCK_TYPE*
 * lock_identifier  64 bytes; receives the identifier, or holds it with relock
 * group_name       may be null; stored as the request group name (at most 16 characters count)
 * relock           not 0: take a suspended lock again, with its identifier
 * locked_cnt       may be null; receives the controller that is in the way
 *
 * Returns 0; KESTA_ERR_LOCKED (the own slot is free then); KESTA_ERR_ARGUMENT (no identifier buffer,
 * another type); KESTA_ERR. A failure after the slot was written leaves the lock: release it.
 */
KESTA_API int kestal_global_command_lock_func(int cnt_num, int lock_type, char *lock_identifier, char *group_name,
                                              int relock, int *locked_cnt);

/*
 * Looks for a lock, suspended ones included, and clears those that this process has seen unchanged
 * for more than 600 seconds, across its calls.
 *
 * cnt_num         controller number, or -1 for all
 * group_name_out  may be null; 16 bytes, receives the request group name if there is a lock
 * locked_cnt      may be null; receives the controller that has it
 *
 * Returns the identifier of the first lock found, 0 for none, KESTA_ERR.
 */
KESTA_API int kestal_global_command_lock_check(int cnt_num, char *group_name_out, int *locked_cnt);

/*
 * Releases the lock of a controller, and clears the request group name.
 *
 * lock_identifier  must be the lock's; null releases without a check
 * keep             0: release. Any other value: suspend; the identifier is not looked at, and stays
 *                  reserved until the lock is taken again with relock, or released.
 *
 * Returns 0; KESTA_ERR_LOCK_IDENTIFIER (another identifier: nothing was changed); KESTA_ERR (also an
 * identifier that is no number).
 */
KESTA_API int kestal_global_command_unlock_func(int cnt_num, const char *lock_identifier, int keep);

/*
 * Read and write slots, each call under the inner lock.
 *
 * block_id  KESTA_BLOCK_LOCK_CNT0 .. + 3
 * lockinfo  one KESTA_COMMAND_LOCKINFO, or with the first block and size 96 all four
 * size      bytes
 * cnt_num   the number that the inner lock is taken with, 0..3
 *
 * Return 0, KESTA_ERR or KESTA_ERR_ARGUMENT (another block, null).
 */
KESTA_API int kestal_read_cmd_lockinfo(int block_id, void *lockinfo, int size, int cnt_num);
KESTA_API int kestal_write_cmd_lockinfo(int block_id, void *lockinfo, int size, int cnt_num);

/*
 * Records the timeout value seen in a slot, for this process.
 *
 * Returns 1 if the same value has been seen for more than 600 seconds, 0 if not, KESTA_ERR_ARGUMENT
 * for a controller outside 0..3.
 */
KESTA_API int kestal_compare_cntlock_timeout(int cnt_num, int value);

/* Forget what was recorded: of one controller (returns 0), of all. */
KESTA_API int kestal_reset_cntlock_timeout(int cnt_num);
KESTA_API void kestal_allreset_lockinfo(void);

/*
 * Converts the own controller's type-1 lock to a running backup, and renews it. Refused while any
 * other controller has a lock.
 *
 * Returns 0; KESTA_ERR_LOCK_IDENTIFIER; KESTA_ERR; KESTA_ERR_ARGUMENT (null).
 */
KESTA_API int kestal_backup_lock(const char *lock_identifier);

KESTA_END_DECLS

#endif
