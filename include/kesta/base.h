/*
 * Result codes, log levels and the export macro of libkesta.
 *
 * Every header under kesta/ compiles alone as C11 and as C++20.
 */
#ifndef KESTA_BASE_H
#define KESTA_BASE_H

#if defined(__GNUC__)
#define KESTA_API __attribute__((visibility("default")))
#define KESTA_PRINTF(format_index, first_index) __attribute__((format(printf, format_index, first_index)))
#else
#define KESTA_API
#define KESTA_PRINTF(format_index, first_index)
#endif

#ifdef __cplusplus
#define KESTA_BEGIN_DECLS extern "C" {
#define KESTA_END_DECLS }
#else
#define KESTA_BEGIN_DECLS
#define KESTA_END_DECLS
#endif

/* Results common to all functions. */
#define KESTA_OK 0
#define KESTA_ERR (-1)            /* general failure */
#define KESTA_ERR_ARGUMENT (-931) /* null pointer, value outside its table, name too long */

/* Inner lock. */
#define KESTA_ERR_INNERLOCK_READ (-171)   /* NV read failed while checking */
#define KESTA_ERR_INNERLOCK_WRITE (-172)  /* NV write failed, or all attempts used up */
#define KESTA_ERR_INNERLOCK_LOCKED (-173) /* a slot is set (the check only) */

/* Command lock. */
#define KESTA_ERR_LOCKED (-101)          /* another lock is in the way */
#define KESTA_ERR_LOCK_IDENTIFIER (-203) /* the lock carries another identifier */

/* Local lock. */
#define KESTA_ERR_LOCAL_LOCK (-121)   /* held by another process, or its file can't be had */
#define KESTA_ERR_LOCAL_UNLOCK (-122) /* it could not be given back */
#define KESTA_ERR_LOCAL_CLOSE (-123)  /* its file could not be closed */

/* Controller number. */
#define KESTA_ERR_CNTFILE (-161) /* own number or controller count could not be had */
#define KESTA_ERR_CPINFO (-241)  /* a platform command gave no usable answer */

/* Definitions of backup groups. */
#define KESTA_ERR_DEFINITION_FILE (-211)  /* missing, no XML, or wrong contents */
#define KESTA_ERR_DEFINITION (-911)       /* wrong contents: the parts of the reader */
#define KESTA_ERR_DEFINITION_GROUP (-914) /* it names another group */
#define KESTA_ERR_FILE_PROPERTY (-213)    /* owner, group or mode could not be set */

/* Block access: the block has no file in the system backup area. */
#define KESTA_NO_SYSBACK_NAME 9

/* Restore stages (positive on purpose: callers tell the stages apart by them). */
#define KESTA_RESTORE_SWITCH_FAILED 1
#define KESTA_RESTORE_SCRIPT_FAILED 2
#define KESTA_RESTORE_READ_FAILED 9

/* An appliance has four controllers, CNT0 to CNT3. */
#define KESTA_CONTROLLERS 4

#define KESTA_OFF 0
#define KESTA_ON 1

#endif
