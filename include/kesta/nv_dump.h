/*
 * Hexadecimal dumps of NV memory, to a file or to the trace log at level 4. They take no lock: a dump may
 * show a block that is half written.
 */
#ifndef KESTA_NV_DUMP_H
#define KESTA_NV_DUMP_H

#include <stdio.h>

#include "kesta/base.h"

KESTA_BEGIN_DECLS

/* As the platform declares it. */
typedef unsigned int cpfw_nv_region_t;

/*
 * Dumps the named parts of the NV image: HEADER, KESTA_SYNC, CNT_COMMON_TBL, FILLER, INNERLOCK.
 *
 * file  replaced; null: to the trace log
 *
 * Returns 0 or KESTA_ERR.
 */
KESTA_API int kestal_non_volatile_dumpout(char *file);

/*
 * Dumps a stretch of a region, in pages of 256 bytes: one page more than there are whole ones in size.
 *
 * Returns 0 or KESTA_ERR.
 */
KESTA_API int kestal_non_volatile_dumpout_assign(char *file, int region, int offset, int size);

/* Reads from a region: up to five attempts, 100 ms apart. Returns 0, KESTA_ERR or KESTA_ERR_ARGUMENT. */
KESTA_API int kestal_non_volatile_r_memory(cpfw_nv_region_t region, void *buffer, int offset, int size);

/* Dumps bytes, 16 a line; out null: to the trace log. Nothing for a length below 1. */
KESTA_API void kestal_non_volatile_dump(FILE *out, char *data, int length);

KESTA_END_DECLS

#endif
