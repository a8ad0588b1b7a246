#include "sanfwctl.h"

#include <errno.h>
#include <pthread.h>

#include "call_checks.h"
#include "controller_status.h"
#include "faults.h"
#include "nv_region.h"
#include "one_machine.h"
#include "scoped.h"
#include "settings.h"

#define PLATFORM_API __attribute__((visibility("default")))

namespace {

using namespace embedded;
using namespace platform;

constexpr unsigned max_regions = 16;

NvRegion regions[max_regions];
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;  // one transfer of the process at a time

// A child made by fork must not find the mutex locked by a thread that it doesn't have.
void lock_for_fork() { pthread_mutex_lock(&mutex); }
void unlock_after_fork() { pthread_mutex_unlock(&mutex); }
// When the library is loaded: a fork that has begun by the first use would not know of it.
__attribute__((constructor)) void handle_fork() { pthread_atfork(lock_for_fork, unlock_after_fork, unlock_after_fork); }

// A transfer in one direction, by NvRegion::read or NvRegion::write.
template <typename Direction>
int transfer(Direction direction, unsigned region, const cpfw_nv_access_t &access)
{
    const kesta::CancelOff off;
    int result;
    {
        const kesta::Locked locked(mutex);
        result = (regions[region].*direction)(region, access.offset, access.buffer, access.length);
    }
    if (result == -EREMOTE) {
        tell_refused("nv_dir", settings().nv_dir);
    }
    return result;
}

}  // namespace

PLATFORM_API int zKTsanfwctl_read_nv(int, cpfw_nv_region_t *region, cpfw_nv_access_t *access, int count)
{
    if (const int refused = check_nv_access(region, access, count); refused != 0) {
        return refused;
    }
    if (const int failed = failure_of("nv_read"); failed != 0) {
        return failed;
    }
    return transfer(&NvRegion::read, *region, *access);
}

PLATFORM_API int zKTsanfwctl_write_nv(int, cpfw_nv_region_t *region, cpfw_nv_access_t *access, int count)
{
    if (const int refused = check_nv_access(region, access, count); refused != 0) {
        return refused;
    }
    if (const int failed = failure_of("nv_write"); failed != 0) {
        return failed;
    }
    return transfer(&NvRegion::write, *region, *access);
}

PLATFORM_API int zKTsanfwctl_get_status(int kind, sanfw_getstatus_out *out) { return get_status(kind, out); }

PLATFORM_API int zKTsanfwctl_get_status_ex(int kind, sanfw_getstatus_ex_out *out) { return get_status_ex(kind, out); }
