#include "sanfwctl.h"

#include <errno.h>
#include <stdio.h>

#include <ctime>
#include <map>

#include "call_checks.h"
#include "certificate.h"
#include "cluster.h"
#include "complaint.h"
#include "controller_status.h"
#include "faults.h"
#include "guarded.h"
#include "nv_region.h"
#include "platform_notice.h"
#include "scoped.h"
#include "settings.h"

#define PLATFORM_API __attribute__((visibility("default")))

namespace {

using namespace etcd;
using namespace platform;

// All that the library has.
struct NvMemory {
    Cluster cluster{StoreOf::nv_memory};
    std::map<unsigned, NvRegion> regions;
    Complaint complaint{"NV memory"};

    void forget_in_child()
    {
        cluster.forget_connection();
        for (auto &[number, region] : regions) {
            region.forget();
        }
    }
};

__attribute__((constructor)) void handle_fork() { Guarded<NvMemory>::handle_fork(); }

// In the gate.
int transfer_prepared(NvMemory &memory, unsigned number, const cpfw_nv_access_t &access, bool writes)
{
    const auto found = memory.regions.find(number);
    NvRegion &region =
        found != memory.regions.end()
            ? found->second
            : memory.regions
                  .try_emplace(number, memory.cluster.client(),
                               memory.cluster.prefix() + "nv/" + std::to_string(number), number == image_region)
                  .first->second;
    return writes ? region.write(access.offset, access.buffer, access.length)
                  : region.read(access.offset, access.buffer, access.length);
}

int transfer(unsigned number, const cpfw_nv_access_t &access, bool writes)
{
    return Guarded<NvMemory>::run([&](NvMemory &memory) {
        const int error = memory.cluster.prepare(writes);
        return error != 0 ? error : transfer_prepared(memory, number, access, writes);
    });
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
    return transfer(*region, *access, false);
}

PLATFORM_API int zKTsanfwctl_write_nv(int, cpfw_nv_region_t *region, cpfw_nv_access_t *access, int count)
{
    if (const int refused = check_nv_access(region, access, count); refused != 0) {
        return refused;
    }
    if (const int failed = failure_of("nv_write"); failed != 0) {
        return failed;
    }
    return transfer(*region, *access, true);
}

PLATFORM_API int kesta_platform_notice(char *text, unsigned int size)
{
    if (!text || size == 0 || settings().tls_cert[0] == '\0') {
        return 0;
    }
    const kesta::CancelOff off;
    const std::string notice = certificate_notice(settings().tls_cert, time(nullptr));
    snprintf(text, size, "%s", notice.c_str());
    return notice.empty() ? 0 : 1;
}

PLATFORM_API int zKTsanfwctl_get_status(int kind, sanfw_getstatus_out *out) { return get_status(kind, out); }

PLATFORM_API int zKTsanfwctl_get_status_ex(int kind, sanfw_getstatus_ex_out *out) { return get_status_ex(kind, out); }
