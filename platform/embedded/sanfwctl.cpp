#include "sanfwctl.h"

#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "faults.h"
#include "nv_region.h"
#include "one_machine.h"
#include "scoped.h"
#include "settings.h"

#define PLATFORM_API __attribute__((visibility("default")))

namespace {

using namespace embedded;

constexpr unsigned max_regions = 16;
constexpr unsigned controllers = 4;

NvRegion regions[max_regions];
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;  // one transfer of the process at a time

// A child made by fork must not find the mutex locked by a thread that it doesn't have.
void lock_for_fork() { pthread_mutex_lock(&mutex); }
void unlock_after_fork() { pthread_mutex_unlock(&mutex); }
pthread_once_t fork_handled = PTHREAD_ONCE_INIT;
void handle_fork() { pthread_atfork(lock_for_fork, unlock_after_fork, unlock_after_fork); }

int check(const cpfw_nv_region_t *region, const cpfw_nv_access_t *access, int count)
{
    if (!region || !access || count != 1 || !access->buffer) {
        return -EINVAL;
    }
    if (*region >= static_cast<unsigned>(settings().nv_regions)) {
        return -ENXIO;
    }
    if (access->length > nv_region_size || access->offset > nv_region_size - access->length) {
        return -ERANGE;
    }
    return 0;
}

// A transfer in one direction, by NvRegion::read or NvRegion::write.
template <typename Direction>
int transfer(Direction direction, unsigned region, const cpfw_nv_access_t &access)
{
    pthread_once(&fork_handled, handle_fork);
    const CancelOff off;
    int result;
    {
        const Locked locked(mutex);
        result = (regions[region].*direction)(region, access.offset, access.buffer, access.length);
    }
    if (result == -EREMOTE) {
        tell_refused("nv_dir", settings().nv_dir);
    }
    return result;
}

// Whether the line is "NAME = NUMBER", and the number fits a byte.
bool parse_status(const char *line, char (&name)[16], uint8_t &value)
{
    char text[16];
    if (sscanf(line, " %15[a-z0-9] = %15s", name, text) != 2) {
        return false;
    }
    char *end = nullptr;
    const unsigned long number = strtoul(text, &end, 0);
    value = static_cast<uint8_t>(number);
    return *end == '\0' && number <= UINT8_MAX;
}

struct StatusBytes {
    uint8_t cont[controllers];
    uint8_t card[controllers];
};

void store_status(StatusBytes &bytes, const char *name, uint8_t value)
{
    for (unsigned i = 0; i < controllers; ++i) {
        char cont[16];
        char card[16];
        snprintf(cont, sizeof(cont), "cont%u", i);
        snprintf(card, sizeof(card), "card%u", i);
        if (strcmp(name, cont) == 0) {
            bytes.cont[i] = value;
        } else if (strcmp(name, card) == 0) {
            bytes.card[i] = value;
        }
    }
}

int read_status(StatusBytes &bytes)
{
    if (const int failed = failure_of("status"); failed != 0) {
        return failed;
    }
    const CancelOff off;
    FILE *file = kesta::above_standard(fopen(settings().status_file, "re"));
    if (!file) {
        return -errno;
    }
    char line[128];
    while (fgets(line, sizeof(line), file)) {
        char name[16];
        uint8_t value;
        if (parse_status(line, name, value)) {
            store_status(bytes, name, value);
        }
    }
    const int result = ferror(file) ? -EIO : 0;
    (void)fclose(file);  // read only
    return result;
}

}  // namespace

PLATFORM_API int zKTsanfwctl_read_nv(int, cpfw_nv_region_t *region, cpfw_nv_access_t *access,
                                     int count)
{
    if (const int refused = check(region, access, count); refused != 0) {
        return refused;
    }
    if (const int failed = failure_of("nv_read"); failed != 0) {
        return failed;
    }
    return transfer(&NvRegion::read, *region, *access);
}

PLATFORM_API int zKTsanfwctl_write_nv(int, cpfw_nv_region_t *region, cpfw_nv_access_t *access,
                                      int count)
{
    if (const int refused = check(region, access, count); refused != 0) {
        return refused;
    }
    if (const int failed = failure_of("nv_write"); failed != 0) {
        return failed;
    }
    return transfer(&NvRegion::write, *region, *access);
}

PLATFORM_API int zKTsanfwctl_get_status(int kind, sanfw_getstatus_out *out)
{
    if (kind != 0 || !out) {
        return -EINVAL;
    }
    StatusBytes bytes{};
    const int result = read_status(bytes);
    if (result == 0) {
        *out = {};
        out->cont0_sts = bytes.cont[0];
        out->cont1_sts = bytes.cont[1];
        out->card0_sts = bytes.card[0];
        out->card1_sts = bytes.card[1];
    }
    return result;
}

PLATFORM_API int zKTsanfwctl_get_status_ex(int kind, sanfw_getstatus_ex_out *out)
{
    if (kind != 1 || !out) {
        return -EINVAL;
    }
    StatusBytes bytes{};
    const int result = read_status(bytes);
    if (result == 0) {
        *out = {};
        memcpy(out->cont_sts, bytes.cont, sizeof(bytes.cont));
        memcpy(out->card_sts, bytes.card, sizeof(bytes.card));
    }
    return result;
}
