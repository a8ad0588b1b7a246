/*
 * The NV image as a whole: its header, clearing it, and rewriting it in place.
 */
#ifndef KESTA_NV_SYNC_H
#define KESTA_NV_SYNC_H

#include "kesta/base.h"
#include "kesta/nv_image.h"

KESTA_BEGIN_DECLS

/* What kestal_flag_of_sync_nonvolatile does; reading wins if both are set. */
#define KESTA_SYNC_READ 0x100
#define KESTA_SYNC_WRITE 0x200
#define KESTA_SYNC_SYNCED 0x1 /* the synced flag takes part */
#define KESTA_SYNC_REQ 0x2    /* the req flag takes part */

/*
 * Reads or writes the synchronisation flags of the header, under the inner lock.
 *
 * rw           KESTA_SYNC_*
 * synced, req  each may be null; one byte of the image each, sign-extended when read
 * cntno        number that the inner lock is taken with
 *
 * Returns 0; 1 if neither reading nor writing is asked for; the error of the inner lock, or of the
 * platform. A failed release of the inner lock is only logged.
 */
KESTA_API int kestal_flag_of_sync_nonvolatile(int rw, int *synced, int *req, int cntno);

/* Logs the flags of an image and of a call, at level 5; nothing without an image. */
KESTA_API void kestal_flag_of_sync_nonvolatile_dbglog(int rw, int *synced, int *req, KESTA_VOLATILE *image);

/*
 * For making an image before others use it; both take no lock. set_magic writes the first 16 bytes of the
 * header, set_to_nvdata clears everything behind the header, the inner locks included.
 *
 * Return 0; set_magic the platform's error, set_to_nvdata KESTA_ERR.
 */
KESTA_API int kestal_set_magic_to_nv_header(void);
KESTA_API int kestal_set_to_nvdata(void);

/*
 * Reads NV regions 0 and 2 and writes them back as they are, so that the storage firmware passes them
 * on; under the inner lock.
 *
 * Returns 0 (also where no memory could be had: nothing was done), or the error of the inner lock or of
 * the platform.
 */
KESTA_API int kestal_sync_all_nonvolatile(int cntno);

KESTA_END_DECLS

#endif
