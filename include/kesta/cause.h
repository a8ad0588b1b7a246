/*
 * Why a call failed.
 *
 * A result of -1 says that something failed; what it was, this thread's last cause tells: it is set where a failure is
 * met and traced, and passes through the functions that hand it on. Like errno it means something after a call that
 * failed only, is left alone by calls that succeed, and belongs to the thread; a worker thread's failure is told by
 * its traces.
 *
 *     kesta_clear_cause();
 *     if (kestal_set_version(KESTA_VER_AREA_BACKUP, own, 4) != KESTA_OK) {
 *         const KESTA_CAUSE *cause = kesta_last_cause();
 *         if (cause->kind == KESTA_CAUSE_PLATFORM && cause->number == -ENOSPC) { ... }
 *     }
 */
#ifndef KESTA_CAUSE_H
#define KESTA_CAUSE_H

#include "kesta/base.h"

/* The kinds of causes. */
#define KESTA_CAUSE_NONE 0     /* nothing has failed since the thread began, or since the last clear */
#define KESTA_CAUSE_ARGUMENT 1 /* a null pointer, a value outside its table, a name or buffer of a wrong length */
#define KESTA_CAUSE_SYSTEM 2   /* a call of the operating system failed: number is its errno */
#define KESTA_CAUSE_PLATFORM 3 /* a platform library failed: number is its result, below 0 */
#define KESTA_CAUSE_CONTENT 4  /* what was read is not what it has to be: a file, a definition, a text, an answer */
#define KESTA_CAUSE_COMMAND 5  /* a command or script failed: number is its exit code or status, or -1 */
#define KESTA_CAUSE_LOCKED 6   /* somebody else holds a lock, or has taken it over */
#define KESTA_CAUSE_MEMORY 7   /* no memory was had: number is the errno, or 0 */

#define KESTA_CAUSE_FUNCTION_SIZE 64
#define KESTA_CAUSE_TEXT_SIZE 512

/* Both texts end with a NUL; a longer one is cut. */
typedef struct {
    int kind;                                 /* KESTA_CAUSE_* */
    int number;                               /* see the kinds; 0 where a kind has none */
    char function[KESTA_CAUSE_FUNCTION_SIZE]; /* which one met it, by its source: "kestal_backup_rw" */
    char text[KESTA_CAUSE_TEXT_SIZE];         /* the trace that was written: for people, its words may change */
} KESTA_CAUSE;

KESTA_BEGIN_DECLS

/*
 * The calling thread's last cause: never null, of kind KESTA_CAUSE_NONE if there is none. It is the library's,
 * and stays as it is until the thread's next failure or clear. Never fails, logs nothing, leaves errno alone, and is no
 * cancellation point.
 */
KESTA_API const KESTA_CAUSE *kesta_last_cause(void);

/* Forgets the calling thread's last cause. Never fails, logs nothing, leaves errno alone. */
KESTA_API void kesta_clear_cause(void);

KESTA_END_DECLS

#endif
