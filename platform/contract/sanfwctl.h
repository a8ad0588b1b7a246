/* libsanfwctl: NV regions and controller status of the storage firmware. */
#ifndef SANFWCTL_H
#define SANFWCTL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef unsigned int cpfw_nv_region_t;

typedef struct {
    void *buffer;
    uint64_t offset; /* bytes from the start of the region */
    uint64_t length; /* bytes */
} cpfw_nv_access_t;

/*
 * Transfers one record between a buffer and an NV region; handle is -1, count is 1.
 * Return 0, or non-zero if nothing was transferred. A transfer is atomic, and of any offset and length within
 * the region's 32768 bytes. region and access are left as they are: a transfer that failed is repeated with
 * them.
 */
int zKTsanfwctl_read_nv(int handle, cpfw_nv_region_t *region, cpfw_nv_access_t *access, int count);
int zKTsanfwctl_write_nv(int handle, cpfw_nv_region_t *region, cpfw_nv_access_t *access, int count);

typedef struct {
    uint8_t cont0_sts, cont1_sts; /* controller status: the high four bits are the state */
    uint8_t card0_sts, card1_sts; /* card status */
    uint8_t reserved[36];
} sanfw_getstatus_out;

typedef struct {
    uint8_t cont_sts[4], card_sts[4];
    uint8_t reserved[120];
} sanfw_getstatus_ex_out;

/*
 * Fill each status byte of the record; return 0, or non-zero on failure. kind is 0 for the first, 1 for the
 * second. Both say the same about controllers 0 and 1.
 */
int zKTsanfwctl_get_status(int kind, sanfw_getstatus_out *out);
int zKTsanfwctl_get_status_ex(int kind, sanfw_getstatus_ex_out *out);

#ifdef __cplusplus
}
#endif

#endif
