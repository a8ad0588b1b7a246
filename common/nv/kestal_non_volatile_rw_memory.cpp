#include <unistd.h>

#include "block_map.h"
#include "kesta/block_access.h"
#include "nv_transfer.h"
#include "sanfwctl.h"
#include "trace.h"

namespace {

int check_arguments(int rw_flag, const void *data, unsigned int size)
{
    if (!data) {
        FAILURE(ARGUMENT, 0, 1, "[non_volatile_rw_memory] Data area pointer is INVALID");
        return KESTA_ERR_ARGUMENT;
    }
    if (size == 0) {
        FAILURE(ARGUMENT, 0, 1, "[non_volatile_rw_memory] Data Size is INVALID(Size=0)");
        return KESTA_ERR_ARGUMENT;
    }
    if (rw_flag != KESTA_BLOCK_WRITE && rw_flag != KESTA_BLOCK_READ) {
        FAILURE(ARGUMENT, 0, 1, "[non_volatile_rw_memory] R/W flag is INVALID");
        return KESTA_ERR_ARGUMENT;
    }
    return KESTA_OK;
}

int transfer_once(int offset, int rw_flag, void *data, unsigned int size)
{
    cpfw_nv_region_t region = KESTA_NV_IMAGE_REGION;
    cpfw_nv_access_t access{data, static_cast<std::uint64_t>(offset), size};
    return rw_flag == KESTA_BLOCK_WRITE
               ? zKTsanfwctl_write_nv(kesta::nv_handle, &region, &access, kesta::nv_access_count)
               : zKTsanfwctl_read_nv(kesta::nv_handle, &region, &access, kesta::nv_access_count);
}

void report_attempt(int attempt, int block_id, int rw_flag, int result)
{
    if (rw_flag == KESTA_BLOCK_WRITE) {
        FAILURE(PLATFORM, result, 1, "[non_volatile_rw_memory] [%d/%d] NV(memory) Write ERROR block_id=%d result=%d",
                attempt, kesta::nv_attempts, block_id, result);
    } else {
        FAILURE(PLATFORM, result, 1, "[non_volatile_rw_memory] [%d/%d] NV(memory) Read ERROR block_id=%d result=%d",
                attempt, kesta::nv_attempts, block_id, result);
    }
}

bool transfer(const kesta::BlockRow &row, int rw_flag, void *data, unsigned int size)
{
    kesta::NvTransferSection section;
    for (int attempt = 0; attempt < kesta::nv_attempts; ++attempt) {
        const int result = transfer_once(row.offset, rw_flag, data, size);
        if (result == 0) {
            return true;
        }
        report_attempt(attempt, row.block_id, rw_flag, result);
        usleep(kesta::nv_retry_us);  // after the last failure too
    }
    return false;
}

}  // namespace

int kestal_non_volatile_rw_memory(int block_id, int rw_flag, void *data, unsigned int size)
{
    TRACE(5, "[non_volatile_rw_memory] NV(memory) R/W START block_id=%d rw_flag=%d d_size=%d", block_id, rw_flag,
          static_cast<int>(size));
    if (const int refused = check_arguments(rw_flag, data, size); refused != KESTA_OK) {
        return refused;
    }
    const kesta::BlockRow *row = kesta::find_block(kesta::block_id2offset, block_id);
    if (!row) {
        // Success on purpose: the reboot version always takes this path.
        TRACE(5, "[non_volatile_rw_memory] Block ID is INVALID block_id=%d", block_id);
        return KESTA_OK;
    }
    if (!transfer(*row, rw_flag, data, size)) {
        TRACE(1, "[non_volatile_rw_memory] NV(memory) ACCESS ERROR block_id=%d", block_id);
        return KESTA_ERR;
    }
    TRACE(5, "[non_volatile_rw_memory] END block_id=%d rw_flag=%d", block_id, rw_flag);
    return KESTA_OK;
}
