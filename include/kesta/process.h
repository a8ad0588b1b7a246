/*
 * Running commands, reading their output, and small text utilities.
 *
 * Commands get the environment of the process. In a program that runs with other rights than its caller's
 * (set-user-ID and the like) that is the caller's: there the first command of all sets PATH to the system's own,
 * and removes the variables by which a shell, tar or bzip2 is made to run something else, for the whole process.
 */
#ifndef KESTA_PROCESS_H
#define KESTA_PROCESS_H

#include "kesta/base.h"

KESTA_BEGIN_DECLS

/*
 * Runs "/bin/sh -c command" in a process group of its own, with the caller's environment and
 * KESTA_EVENT and KESTA_VRBGETSTAT added (each cut at 63 characters), descriptors above 2 closed,
 * all ordinary signals unblocked and at their defaults. Waits without limit, polling every 0.1 s.
 *
 * wait_status  receives the raw wait status
 *
 * Returns 0 once the child is reaped, KESTA_ERR_ARGUMENT for a null command or status, KESTA_ERR
 * otherwise (among others with more than 511 environment strings). Logged at level 1.
 */
KESTA_API int kestal_system(const char *command, const char *event, const char *platform_status, int *wait_status);

/*
 * Runs a command with system(), one at a time in the process. Returns its exit code (0..255),
 * KESTA_ERR if it could not be run or ended by a signal (logged at level 1), KESTA_ERR_ARGUMENT for
 * a null command.
 */
KESTA_API int kestal_exec_cmd_by_system(const char *command);

/*
 * Makes the environment block of a child: NAME=value strings, each ended by NUL, one NUL more
 * after the last. *block is freed with kestal_free_envblk.
 * Returns 0, KESTA_ERR_ARGUMENT (null block pointer) or KESTA_ERR.
 */
KESTA_API int kestal_alloc_envblk(char **block, const char *event, const char *platform_status);
KESTA_API void kestal_free_envblk(char *block);

/*
 * Runs a command and copies its first lines into the caller's buffers.
 *
 * output  buffers of at least 64 zeroed bytes each, ended by a null pointer; one line, at most
 *         63 characters, goes into each
 *
 * Returns 0; the command's exit code if that is not 0; KESTA_ERR if it could not be started or gave
 * fewer lines than there are buffers; KESTA_ERR_ARGUMENT for a null pointer.
 */
KESTA_API int kestal_execute(const char *command, char **output);

/* Returns 0 if text is one or more decimal digits and nothing else, KESTA_ERR if not. */
KESTA_API int kestal_isdigit(const char *text);

/*
 * Appends formatted text, at most 1023 characters, to a growing buffer.
 *
 * buffer    null at first; freed by the caller with kestal_free_debug
 * capacity  0 at first; -1 after a failure: the text is gone and further appends do nothing
 */
KESTA_API void kestal_strcat(char **buffer, int *capacity, const char *format, ...) KESTA_PRINTF(3, 4);

KESTA_END_DECLS

#endif
