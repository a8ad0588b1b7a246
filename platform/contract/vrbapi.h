/* libvrbapi: the cluster platform. */
#ifndef VRBAPI_H
#define VRBAPI_H

#include <netinet/in.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What went wrong: the platform function that failed, and its errno. */
typedef struct {
    char func_name[16];
    int32_t s_errno;
} _VRBAPIERRINFO;

/*
 * Keep one integer in a file, which is replaced whole. Return 0 on success; on failure the error record is
 * filled. flag is 1: a number below lowest or above highest is a failure, as is a file without a number.
 */
int vrbapi_setint_to_file(const char *path, int value, _VRBAPIERRINFO *error);
int vrbapi_getint_from_file(const char *path, unsigned char flag, int lowest, int highest, int *value,
                            _VRBAPIERRINFO *error);

#define VRB_SANFWINFO_MASTER 1

/* kind 1: the number of the master controller. Returns 0 on success. */
int vrbgetsanfwinfo(int kind, uint8_t *result, _VRBAPIERRINFO *error, int *extra);

typedef struct {
    int32_t cntno;
    struct in_addr address;
} vrb_netconfig_t;

/*
 * [0] the own controller, [1] the other one, each with its number (0 to 3) and address. Returns 0 on success;
 * sets errno on failure.
 */
int vrbgetnetconfig(vrb_netconfig_t records[2]);

#ifdef __cplusplus
}
#endif

#endif
