/*
 * The local command lock, between processes of one controller, and the files that hand a command
 * lock's identifier from process to process.
 */
#ifndef KESTA_LOCAL_LOCK_H
#define KESTA_LOCAL_LOCK_H

#include "kesta/base.h"

KESTA_BEGIN_DECLS

/* The fewest bytes a buffer for an identifier must have. */
#define KESTA_LOCK_FILE_BUFFER 11

/*
 * Takes the local lock of a name. Does not wait. The lock lives as long as the descriptor is open,
 * at most as long as the process.
 *
 * fd    receives the descriptor, to be kept and given back to kestal_file_command_unlock; after a
 *       failure -1, or the number of a descriptor that is closed already
 * name  file name under /var/run/kesta_sys/tmp/, one word without a slash
 *
 * Returns 0; KESTA_ERR_LOCAL_LOCK (held by another process, or the file can't be had);
 * KESTA_ERR_ARGUMENT (null, or a name that makes a path of more than 255 characters). A link or anything
 * else that is no plain file is never used as a lock.
 */
KESTA_API int kestal_file_command_lock(int *fd, char *name);

/*
 * Gives the local lock back and closes its descriptor. The file stays.
 *
 * Returns 0; KESTA_ERR_LOCAL_UNLOCK (the descriptor stays open); KESTA_ERR_LOCAL_CLOSE;
 * KESTA_ERR_ARGUMENT (null, or a negative descriptor).
 */
KESTA_API int kestal_file_command_unlock(int *fd);

/*
 * Writes an identifier into a file, as one line. The file is replaced in place; a link is not followed.
 *
 * lock_name  path of the file
 *
 * Returns 0, KESTA_ERR or KESTA_ERR_ARGUMENT (null).
 */
KESTA_API int kestal_create_lock_file(const char *lock_identifier, const char *lock_name);

/*
 * Reads it back: at most 10 characters.
 *
 * buf, size  at least KESTA_LOCK_FILE_BUFFER bytes; as it was if the file is empty
 *
 * Returns 0; KESTA_ERR (buffer too small, the file can't be opened); KESTA_ERR_ARGUMENT (null).
 */
KESTA_API int kestal_read_lock_file(const char *file_name, char *buf, int size);

KESTA_END_DECLS

#endif
