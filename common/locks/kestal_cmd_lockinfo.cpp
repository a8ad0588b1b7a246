#include "inner_lock_section.h"
#include "kesta/block_access.h"
#include "kesta/command_lock.h"
#include "kesta/nv_image.h"
#include "trace.h"

namespace {

bool is_lock_block(int block_id)
{
    return block_id >= KESTA_BLOCK_LOCK_CNT0 &&
           block_id < KESTA_BLOCK_LOCK_CNT0 + KESTA_CONTROLLERS;
}

}  // namespace

int kestal_read_cmd_lockinfo(int block_id, void *lockinfo, int size, int cnt_num)
{
    TRACE(5,
          "[kestal_read_cmd_lockinfo] Command lock information read Start. block_id=%d size=%d",
          block_id, size);
    if (!is_lock_block(block_id)) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_read_cmd_lockinfo] Argument Error. block_id=%d", block_id);
        return KESTA_ERR_ARGUMENT;
    }
    if (!lockinfo) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_read_cmd_lockinfo] Argument Error.(lockinfo=NULL)");
        return KESTA_ERR_ARGUMENT;
    }
    kesta::InnerLockSection lock;
    if (const int result = lock.acquire(cnt_num); result != KESTA_OK) {
        TRACE(1, "[kestal_read_cmd_lockinfo] InnerLock Lock Failed(result=%d).", result);
        return KESTA_ERR;
    }
    int rtn = KESTA_OK;
    if (kestal_non_volatile_rw_func(block_id, KESTA_BLOCK_READ, lockinfo,
                                    static_cast<unsigned int>(size), nullptr) != KESTA_OK) {
        TRACE(1, "[kestal_read_cmd_lockinfo] Read non_volatile memory Error. block_id=%d",
              block_id);
        rtn = KESTA_ERR;
    }
    if (const int result = lock.release(); result != KESTA_OK) {
        TRACE(1, "[kestal_read_cmd_lockinfo] InnerLock Unlock Failed.(result=%d)", result);
        rtn = KESTA_ERR;
    }
    TRACE(5, "[kestal_read_cmd_lockinfo] Command lock information read End. rtn=%d", rtn);
    return rtn;
}

int kestal_write_cmd_lockinfo(int block_id, void *lockinfo, int size, int cnt_num)
{
    TRACE(5,
          "[kestal_write_cmd_lockinfo] Command lock information write Start. block_id=%d size=%d",
          block_id, size);
    if (!is_lock_block(block_id)) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_write_cmd_lockinfo] Argument Error. block_id=%d", block_id);
        return KESTA_ERR_ARGUMENT;
    }
    if (!lockinfo) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_write_cmd_lockinfo] Argument Error.(lockinfo=NULL)");
        return KESTA_ERR_ARGUMENT;
    }
    kesta::InnerLockSection lock;
    if (const int result = lock.acquire(cnt_num); result != KESTA_OK) {
        TRACE(1, "[kestal_write_cmd_lockinfo] InnerLock Lock Failed. result=%d", result);
        return KESTA_ERR;
    }
    int ret = KESTA_OK;
    if (kestal_non_volatile_rw_func(block_id, KESTA_BLOCK_WRITE, lockinfo,
                                    static_cast<unsigned int>(size), nullptr) != KESTA_OK) {
        TRACE(1, "[kestal_write_cmd_lockinfo] Write non_volatile memory Error. block_id=%d",
              block_id);
        ret = KESTA_ERR;
    }
    if (const int result = lock.release(); result != KESTA_OK) {
        TRACE(1, "[kestal_write_cmd_lockinfo] InnerLock Unlock Failed. result=%d", result);
        ret = KESTA_ERR;
    }
    TRACE(5, "[kestal_write_cmd_lockinfo] Command lock information write End. ret=%d", ret);
    return ret;
}
