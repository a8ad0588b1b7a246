#include "access_mode.h"
#include "block_map.h"
#include "kesta/block_access.h"
#include "ownership.h"
#include "trace.h"

namespace {

struct Call {
    int block_id;
    int rw_flag;
    void *data;
    unsigned int size;

    bool is_read() const { return rw_flag == KESTA_BLOCK_READ; }
    bool is_write() const { return rw_flag == KESTA_BLOCK_WRITE; }
};

int current_mode()
{
    kesta::MutexGuard guard(bootmode_mutex);
    return s_rwmode;
}

void fall_back_to_memory()
{
    {
        kesta::MutexGuard guard(bootmode_mutex);
        s_rwmode = KESTA_RWMODE_MEMORY;
    }
    TRACE(4, "[non_volatile_rw] SET S_RWMODE=%d", KESTA_RWMODE_MEMORY);
}

int fail_read(int sysback, int memory, int mode)
{
    TRACE(1,
          "[non_volatile_rw] NV(memory and sysback) Read ERROR rtn_sysback=%d rtn_memory=%d "
          "rwmode=%d",
          sysback, memory, mode);
    return KESTA_ERR;
}

int fail_write(int sysback, int memory, int mode)
{
    // "syaback" is kept as it is: log readers match it.
    TRACE(1,
          "[non_volatile_rw] NV(memory nor syaback) Write ERROR rtn_sysback=%d rtn_memory=%d "
          "rwmode=%d",
          sysback, memory, mode);
    return KESTA_ERR;
}

// What a failure of NV memory means for the caller; sysback is what the other place gave.
int memory_failed(const Call &call, int sysback, int memory, int mode)
{
    TRACE(1, "[non_volatile_rw] NV(memory) R/W ERROR rtn=%d.", memory);
    if (call.is_read()) {
        return fail_read(sysback, memory, mode);
    }
    if (call.is_write()) {
        return fail_write(sysback, memory, mode);
    }
    return KESTA_OK;
}

int access_memory(const Call &call)
{
    return kestal_non_volatile_rw_memory(call.block_id, call.rw_flag, call.data, call.size);
}

int memory_only(const Call &call)
{
    const int memory = access_memory(call);
    return memory == KESTA_OK ? KESTA_OK : memory_failed(call, KESTA_OK, memory, KESTA_RWMODE_MEMORY);
}

int both_places(const Call &call, int *sysback_result)
{
    const int flag = call.is_write() ? KESTA_FILE_WRITE : KESTA_FILE_READ;
    const int sysback = kestal_non_volatile_rw_sysback(call.block_id, flag, call.data, call.size);
    if (sysback_result) {
        *sysback_result = sysback;
    }
    if (sysback == KESTA_OK && call.is_read()) {
        return KESTA_OK;
    }
    if (sysback != KESTA_OK) {
        fall_back_to_memory();
        if (sysback < 0) {
            TRACE(1, "[non_volatile_rw] NV(sysback) R/W ERROR rtn=%d.", sysback);
        }
    }
    const int memory = access_memory(call);
    if (memory != KESTA_OK) {
        return memory_failed(call, sysback, memory, KESTA_RWMODE_BOTH);
    }
    if (call.is_write() && sysback == KESTA_ERR) {
        return fail_write(sysback, KESTA_OK, KESTA_RWMODE_BOTH);
    }
    return KESTA_OK;
}

}  // namespace

int kestal_non_volatile_rw_func(int block_id, int rw_flag, void *data, unsigned int size, int *sysback_result)
{
    const Call call{block_id, rw_flag, data, size};
    const bool mirrored = kesta::find_block(kesta::block_id2sysbak_name, block_id) != nullptr;
    const int process_mode = current_mode();
    const int mode = mirrored ? process_mode : KESTA_RWMODE_MEMORY;
    TRACE(5, "[non_volatile_rw] rwmode=%d, sysbak_num=%d, arg_block_id=%d", mode,
          static_cast<int>(kesta::block_id2sysbak_name.size()), block_id);
    switch (mode) {
    case KESTA_RWMODE_BOTH:
        return both_places(call, sysback_result);
    case KESTA_RWMODE_MEMORY:
        return memory_only(call);
    default:
        return KESTA_OK;  // no access: the caller's buffer stays as it is
    }
}
