/*
 * The inner lock: the short mutual exclusion around each read-modify-write of the NV image,
 * between controllers and between processes of one controller.
 *
 *     if (kestal_cntl_innerlock(cntno) == KESTA_OK) {
 *         ... access the image ...
 *         if (kestal_reset_mycnt_innerlock_main(cntno, 0) != KESTA_OK) ... report it ...
 *     }
 *
 * The lock lives in the image, in one slot per controller. A holder whose slot stays unchanged
 * for more than 30 seconds is taken for dead, and its slot is cleared by whoever waits.
 */
#ifndef KESTA_INNER_LOCK_H
#define KESTA_INNER_LOCK_H

#include <time.h>

#include "kesta/base.h"
#include "kesta/nv_image.h"

KESTA_BEGIN_DECLS

/* One observation of a lock value: in memory only. */
typedef struct {
    int value;     /* the value seen last */
    clock_t clock; /* process-times clock in whole seconds when it was first seen; 0 with value 0 */
} KESTAL_LOCKBUFFER_STRUCT;

/*
 * Takes the inner lock. Waits up to 1000 back-offs of 100 ms + 10 ms x cntno.
 *
 * Processes of one controller make their attempts one at a time, and observe the slots meanwhile. One
 * that has stood in its attempt for more than 30 seconds is passed by; when it goes on it looks anew
 * before it writes.
 *
 * cntno  the caller's controller number, 0..3; the slot used is always the own controller's, so
 *        the number must be known (kestal_get_cnt_num_from_cpinfo) before the first call
 *
 * Returns 0 held; KESTA_ERR_ARGUMENT; KESTA_ERR the own slot is unknown or the check failed;
 * KESTA_ERR_INNERLOCK_WRITE the slot could not be written, or the lock stayed held by others.
 */
KESTA_API int kestal_cntl_innerlock(int cntno);

/*
 * Clears an inner-lock slot. Doesn't check who holds it.
 *
 * cntno  controller number, 0..3 (checked in both cases)
 * flag   1: the slot of cntno; any other value: the own controller's slot. A release passes 0.
 *
 * Returns 0, KESTA_ERR_ARGUMENT, KESTA_ERR (no such slot) or KESTA_ERR_INNERLOCK_WRITE.
 */
KESTA_API int kestal_reset_mycnt_innerlock_main(int cntno, int flag);

/*
 * Looks at all four slots at once.
 *
 * cntno      the checking controller, 0..3
 * slots_out  may be null; receives the 64 bytes of the four slots
 * own        may be null; the claim the caller has just written: an own slot that still carries
 *            its token, or is free, doesn't count as locked
 * rtnstatus  may be null; 1 if the own slot carries another token, else 0
 *
 * Returns 0 free, KESTA_ERR_INNERLOCK_LOCKED, KESTA_ERR_INNERLOCK_READ or KESTA_ERR_ARGUMENT.
 */
KESTA_API int kestal_lockcheck_innerlock(int cntno, void *slots_out, KESTA_INNERLOCK_BUF *own, int *rtnstatus);

/*
 * Records a token seen in a slot and tells whether it has been there for more than 30 seconds.
 *
 * cntno  slot index, 0..3
 * value  the token seen now
 * buf    array of four observations, zeroed before the first call
 *
 * Returns 1 stale, 0 not, KESTA_ERR_ARGUMENT for a null array or a slot outside 0..3.
 */
KESTA_API int kestal_compare_innerlock_timeout(int cntno, int value, KESTAL_LOCKBUFFER_STRUCT *buf);

KESTA_END_DECLS

#endif
