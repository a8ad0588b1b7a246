#include "inner_lock_section.h"
#include "kesta/block_access.h"
#include "kesta/command_lock.h"
#include "kesta/nv_image.h"
#include "trace.h"

namespace {

bool is_lock_block(int block_id)
{
    return block_id >= KESTA_BLOCK_LOCK_CNT0 && block_id < KESTA_BLOCK_LOCK_CNT0 + KESTA_CONTROLLERS;
}

// The two directions share their steps. Their texts differ by a word, and in how a result stands in them.
struct Direction {
    int rw_flag;
    const char *tag;
    const char *verb;
    const char *title;
    const char *result_name;
    kesta::InnerLockTexts lock_texts;
};

constexpr Direction read_lockinfo{KESTA_BLOCK_READ,
                                  "kestal_read_cmd_lockinfo",
                                  "read",
                                  "Read",
                                  "rtn",
                                  {"InnerLock Lock Failed(result=", ").", "InnerLock Unlock Failed.(result=", ")"}};
constexpr Direction write_lockinfo{KESTA_BLOCK_WRITE,
                                   "kestal_write_cmd_lockinfo",
                                   "write",
                                   "Write",
                                   "ret",
                                   {"InnerLock Lock Failed. result=", "", "InnerLock Unlock Failed. result=", ""}};

int access_lockinfo(const Direction &direction, int block_id, void *lockinfo, int size, int cnt_num)
{
    const char *tag = direction.tag;
    TRACE(5, "[%s] Command lock information %s Start. block_id=%d size=%d", tag, direction.verb, block_id, size);
    if (!is_lock_block(block_id)) {
        FAILURE(ARGUMENT, 0, 1, "[%s] Argument Error. block_id=%d", tag, block_id);
        return KESTA_ERR_ARGUMENT;
    }
    if (!lockinfo) {
        FAILURE(ARGUMENT, 0, 1, "[%s] Argument Error.(lockinfo=NULL)", tag);
        return KESTA_ERR_ARGUMENT;
    }
    kesta::InnerLockSection lock(tag, direction.lock_texts);
    if (lock.acquire(cnt_num) != KESTA_OK) {
        return KESTA_ERR;
    }
    int ret = KESTA_OK;
    if (kestal_non_volatile_rw_func(block_id, direction.rw_flag, lockinfo, static_cast<unsigned int>(size), nullptr) !=
        KESTA_OK) {
        TRACE(1, "[%s] %s non_volatile memory Error. block_id=%d", tag, direction.title, block_id);
        ret = KESTA_ERR;
    }
    if (lock.release() != KESTA_OK) {
        ret = KESTA_ERR;
    }
    TRACE(5, "[%s] Command lock information %s End. %s=%d", tag, direction.verb, direction.result_name, ret);
    return ret;
}

}  // namespace

int kestal_read_cmd_lockinfo(int block_id, void *lockinfo, int size, int cnt_num)
{
    return access_lockinfo(read_lockinfo, block_id, lockinfo, size, cnt_num);
}

int kestal_write_cmd_lockinfo(int block_id, void *lockinfo, int size, int cnt_num)
{
    return access_lockinfo(write_lockinfo, block_id, lockinfo, size, cnt_num);
}
