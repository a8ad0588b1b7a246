/*
 * Slot names, the request group name and group lists.
 */
#ifndef KESTA_AREA_FILES_H
#define KESTA_AREA_FILES_H

#include "kesta/base.h"
#include "kesta/block_access.h"
#include "kesta/nv_image.h"

KESTA_BEGIN_DECLS

#define KESTA_GROUP_LIST_ENTRIES 64

/*
 * Reads or writes the names of the accept slot and the backup slot, under the inner lock.
 *
 * rw_flag                   KESTA_BLOCK_WRITE or KESTA_BLOCK_READ
 * accept_name, backup_name  buffers of 32 bytes; either may be null. A name that is read is the
 *                           raw field: without a terminator if all 32 characters are used. A name
 *                           that is written is a text with a terminator, of at most 31 characters.
 *
 * Returns 0; KESTA_ERR_ARGUMENT (both null, other flag, name too long); KESTA_ERR (lock, access or
 * unlock failed). If the accept name fails the backup name is not touched. Logged at level 1.
 */
KESTA_API int kestal_area_file_rw(int rw_flag, char *accept_name, char *backup_name);

/*
 * Switches one slot name, under the inner lock. A switch of both is two calls.
 *
 * flag  KESTA_OFF: writes the 32 bytes of accept_name; KESTA_ON: the 32 bytes of backup_name;
 *       any other value writes nothing and succeeds
 *
 * Returns 0, KESTA_ERR_ARGUMENT (the name needed is null) or KESTA_ERR.
 */
KESTA_API int kestal_change_address(char *accept_name, char *backup_name, int flag);

/*
 * Measures a local file. Returns 0 with the size in bytes, or KESTA_ERR_ARGUMENT (null argument,
 * or the file can't be opened or measured, or is larger than 32 bits can say).
 */
KESTA_API int kestal_get_file_size(const char *f_name, unsigned int *ret_size);

/*
 * Writes and reads the request group name: 16 raw bytes, no terminator when full.
 * Return 0, KESTA_ERR_ARGUMENT (null) or KESTA_ERR.
 */
KESTA_API int kestal_set_group_name_file(char *group_name);
KESTA_API int kestal_read_group_name_file(char *group_name);

/*
 * Reads a group list: lines "NAME,CODE", NAME shorter than 16 characters, CODE 0..64 (0 if absent).
 *
 * names     64 entries of 16 bytes, padded with NUL
 * errorcds  64 integers
 * file      path of the list
 *
 * Returns the number of groups (0..64), KESTA_ERR_ARGUMENT for a null pointer, or KESTA_ERR at the
 * first bad line; the entries before it have been stored.
 */
KESTA_API int kestal_get_groupname_from_file(char *names, int *errorcds, const char *file);

KESTA_END_DECLS

#endif
