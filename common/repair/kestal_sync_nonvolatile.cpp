#include <errno.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "inner_lock_section.h"
#include "kesta/alloc.h"
#include "kesta/nv_sync.h"
#include "nv_transfer.h"
#include "ownership.h"
#include "sanfwctl.h"
#include "trace.h"

namespace {

using kesta::InnerLockSection;

constexpr kesta::InnerLockTexts lock_texts{"InnerLock Lock Failed(rtn=", ").", "InnerLock Unlock Failed.(ret=", ")"};

// Regions that are rewritten as a whole, in chunks of 32768 bytes.
struct SyncRow {
    unsigned region;
    int data_size;
    int loop_cnt;
};
constexpr std::array<SyncRow, 2> sync_nonvolatile_tbl{{{0, 32768, 1}, {2, 32768, 1}}};
constexpr int chunk_size = 32768;

constexpr int nothing_asked = 1;
constexpr std::uint64_t whole_header_offset = 0;
constexpr std::uint64_t flags_offset = offsetof(KESTA_VOLATILE, magic);
constexpr std::uint64_t data_offset = offsetof(KESTA_VOLATILE, cnttbl);
constexpr std::int32_t layout_version = 2;

// Magic, version and flags: what is read and written together.
struct FlagHeader {
    char magic[4];
    std::int32_t version;
    KESTA_SYNC sync_flag;
};
static_assert(sizeof(FlagHeader) == 16);
static_assert(flags_offset == 8 && data_offset == 24);

struct NewHeader {
    char alivemond[8];
    char magic[4];
    std::int32_t version;
};
static_assert(sizeof(NewHeader) == 16);

constexpr std::size_t data_size = 640;
static_assert(data_offset + data_size == sizeof(KESTA_VOLATILE));

int nv_read(unsigned region_number, void *data, std::uint64_t offset, std::uint64_t size)
{
    cpfw_nv_region_t region = region_number;
    cpfw_nv_access_t access{data, offset, size};
    return zKTsanfwctl_read_nv(kesta::nv_handle, &region, &access, kesta::nv_access_count);
}

int nv_write(unsigned region_number, void *data, std::uint64_t offset, std::uint64_t size)
{
    cpfw_nv_region_t region = region_number;
    cpfw_nv_access_t access{data, offset, size};
    return zKTsanfwctl_write_nv(kesta::nv_handle, &region, &access, kesta::nv_access_count);
}

// A flag byte as the signed number that it stands for.
int sign_extended(char byte)
{
    constexpr int sign = 0x80;
    return (static_cast<unsigned char>(byte) ^ sign) - sign;
}

void log_flags(int rw, int *synced, int *req, const KESTA_SYNC &flags)
{
    KESTA_VOLATILE image{};
    image.sync_flag = flags;
    kestal_flag_of_sync_nonvolatile_dbglog(rw, synced, req, &image);
}

void store_flags(int rw, int *synced, int *req, const KESTA_SYNC &flags)
{
    if ((rw & KESTA_SYNC_SYNCED) != 0 && synced) {
        *synced = sign_extended(flags.synced);
    }
    if ((rw & KESTA_SYNC_REQ) != 0 && req) {
        *req = sign_extended(flags.req);
    }
}

void take_flags(int rw, const int *synced, const int *req, KESTA_SYNC &flags)
{
    if ((rw & KESTA_SYNC_SYNCED) != 0 && synced) {
        flags.synced = static_cast<char>(*synced);
    }
    if ((rw & KESTA_SYNC_REQ) != 0 && req) {
        flags.req = static_cast<char>(*req);
    }
}

// The transfers, under nvrw_mutex.
int access_flags(int rw, int *synced, int *req)
{
    const kesta::NvTransferSection section;
    FlagHeader header{};
    int rtn = nv_read(KESTA_NV_IMAGE_REGION, &header, flags_offset, sizeof(header));
    if (rtn != 0) {
        TRACE(1, "[flag_of_sync_nonvolatile] NV(memory) Read ERROR rw=%d rtn=%d", rw, rtn);
        return rtn;
    }
    if ((rw & KESTA_SYNC_READ) != 0) {
        store_flags(rw, synced, req, header.sync_flag);
        log_flags(rw, synced, req, header.sync_flag);
        return KESTA_OK;
    }
    if ((rw & KESTA_SYNC_WRITE) == 0) {
        return nothing_asked;
    }
    take_flags(rw, synced, req, header.sync_flag);
    log_flags(rw, synced, req, header.sync_flag);
    rtn = nv_write(KESTA_NV_IMAGE_REGION, &header, flags_offset, sizeof(header));
    if (rtn != 0) {
        TRACE(1, "[flag_of_sync_nonvolatile] NV(memory) Write ERROR rw=%d rtn=%d", rw, rtn);
    }
    return rtn;
}

// Reads and writes back the chunks of a region; the first failure ends it.
int rewrite_region(const SyncRow &row, void *buffer)
{
    int remaining = row.data_size;
    std::uint64_t offset = 0;
    int counter = 0;
    for (; counter < row.loop_cnt; ++counter) {
        const auto length = static_cast<std::uint64_t>(std::min(remaining, chunk_size));
        int rtn = nv_read(row.region, buffer, offset, length);
        if (rtn != 0) {
            TRACE(1, "[sync_all_nonvolatile] NV(memory) Read ERROR rtn=%d", rtn);
            return rtn;
        }
        rtn = nv_write(row.region, buffer, offset, length);
        if (rtn != 0) {
            TRACE(1, "[sync_all_nonvolatile] NV(memory) Write ERROR rtn=%d", rtn);
            return rtn;
        }
        remaining -= chunk_size;
        offset += chunk_size;
    }
    TRACE(3, "[sync_all_nonvolatile] Sync Data: region=%d data_size=0x%x counter=%d.", static_cast<int>(row.region),
          static_cast<unsigned>(row.data_size), counter);
    return KESTA_OK;
}

int rewrite_regions(kesta::TrackedBuffer &buffer)
{
    const kesta::NvTransferSection section;
    *buffer.out() = kestal_calloc_debug(1, chunk_size, __FILE__, __LINE__, 0);
    if (!buffer) {
        MEMORY_FAILURE(error, 1, "[sync_all_nonvolatile] CALLOC ERROR size=%d errno=%d", chunk_size, error);
        return KESTA_OK;  // a start goes on: callers take a failure for NV memory that is broken
    }
    for (const SyncRow &row : sync_nonvolatile_tbl) {
        if (const int rtn = rewrite_region(row, buffer.get()); rtn != 0) {
            return rtn;
        }
    }
    return KESTA_OK;
}

}  // namespace

int kestal_flag_of_sync_nonvolatile(int rw, int *synced, int *req, int cntno)
{
    InnerLockSection lock("flag_of_sync_nonvolatile", lock_texts);
    if (const int rtn = lock.acquire(cntno); rtn != KESTA_OK) {
        return rtn;
    }
    const int result = access_flags(rw, synced, req);
    (void)lock.release();  // traced; what was done counts
    return result;
}

void kestal_flag_of_sync_nonvolatile_dbglog(int rw, int *synced, int *req, KESTA_VOLATILE *image)
{
    if (!image) {
        return;
    }
    constexpr int no_value = -1;
    const auto address = [](const int *pointer) {
        return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(pointer));
    };
    TRACE(5, "[flag_of_sync_nonvolatile] kesta_volatile->sync_flag.synced=%d req=%d",
          sign_extended(image->sync_flag.synced), sign_extended(image->sync_flag.req));
    TRACE(5, "[flag_of_sync_nonvolatile] rw=0x%x synced_flg=0x%x(%d) req_flg=0x%x(%d)", static_cast<unsigned>(rw),
          address(synced), synced ? *synced : no_value, address(req), req ? *req : no_value);
}

int kestal_set_magic_to_nv_header(void)
{
    NewHeader header{{}, {'E', 'N', 'V', 'V'}, layout_version};
    const int rtn = nv_write(KESTA_NV_IMAGE_REGION, &header, whole_header_offset, sizeof(header));
    if (rtn != 0) {
        TRACE(1, "[set_magic_to_nv_header] NV(memory) Write ERROR rtn=%d", rtn);
    }
    return rtn;
}

int kestal_sync_all_nonvolatile(int cntno)
{
    TRACE(4, "[sync_all_nonvolatile] START");
    InnerLockSection lock("sync_all_nonvolatile", lock_texts);
    if (const int rtn = lock.acquire(cntno); rtn != KESTA_OK) {
        return rtn;
    }
    kesta::TrackedBuffer buffer;
    const int result = rewrite_regions(buffer);
    (void)lock.release();  // traced; what was done counts
    TRACE(4, "[sync_all_nonvolatile] END rtn=%d", result);
    return result;
}

int kestal_set_to_nvdata(void)
{
    std::array<unsigned char, data_size> zeros{};
    const int rtn = nv_write(KESTA_NV_IMAGE_REGION, zeros.data(), data_offset, zeros.size());
    if (rtn != 0) {
        TRACE(1, "[kestal_set_to_nvdata] NV(memory) Write ERROR rtn=%d", rtn);
        return KESTA_ERR;
    }
    return KESTA_OK;
}
