/*
 * Tracked allocation. With debug 0 these are calloc, realloc and free. With debug not 0 a 32-byte
 * header goes in front of the block, a running total is kept and each call is logged at level 4.
 * A block must be resized and freed with the switch it was made with.
 */
#ifndef KESTA_ALLOC_H
#define KESTA_ALLOC_H

#include "kesta/base.h"

KESTA_BEGIN_DECLS

/* Zeroed memory, or null; with tracking the size product has 32 bits. */
KESTA_API void *kestal_calloc_debug(int count, int size, const char *file, int line, int debug);

/* Zeroed memory too. */
KESTA_API void *kestal_malloc_debug(int size, const char *file, int line, int debug);

/* The resized block, or null: then the old one stays valid. With tracking a null ptr gives null. */
KESTA_API void *kestal_realloc_debug(char *ptr, int size, const char *file, int line, int debug);

/* With tracking the block is overwritten in part before it goes; a null ptr does nothing. */
KESTA_API void kestal_free_debug(void *ptr, const char *file, int line, int debug);

KESTA_END_DECLS

#endif
