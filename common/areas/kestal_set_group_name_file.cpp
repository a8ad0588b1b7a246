#include "controller_state.h"
#include "inner_lock_section.h"
#include "kesta/area_files.h"
#include "text_field.h"
#include "trace.h"

namespace {

// The two directions share their steps and their texts, and differ in the tag.
struct Direction {
    const char *tag;
    int rw_flag;
};

constexpr kesta::InnerLockTexts lock_texts{"InnerLock Lock Failed(rtn=", ").", "InnerLock Unlock Failed.(rtn=", ")"};

constexpr Direction set_name{"set_group_name_file", KESTA_BLOCK_WRITE};
constexpr Direction read_name{"read_group_name_file", KESTA_BLOCK_READ};

int access_group_name(const Direction &direction, char *group_name)
{
    const char *tag = direction.tag;
    if (!group_name) {
        FAILURE(ARGUMENT, 0, 1, "[%s] Argument ERROR", tag);
        return KESTA_ERR_ARGUMENT;
    }
    // A name that is still to be read has nothing to print: the buffer may hold anything.
    const bool writes = direction.rw_flag == KESTA_BLOCK_WRITE;
    TRACE(5, "[%s] GroupName=%s", tag, kesta::GroupName(writes ? group_name : "").c_str());

    kesta::InnerLockSection lock(tag, lock_texts);
    if (lock.acquire(kesta::own_controller()) != KESTA_OK) {
        return KESTA_ERR;
    }
    int ret = KESTA_OK;
    if (kestal_non_volatile_rw_func(KESTA_BLOCK_GROUP, direction.rw_flag, group_name, KESTA_GROUP_NAME_SIZE, nullptr) !=
        KESTA_OK) {
        TRACE(1, "[%s] FileAccess Failed(block_id=%d).", tag, KESTA_BLOCK_GROUP);
        ret = KESTA_ERR;
    }
    if (lock.release() != KESTA_OK) {
        ret = KESTA_ERR;
    }
    TRACE(5, "[%s] END ret=%d", tag, ret);
    return ret;
}

}  // namespace

int kestal_set_group_name_file(char *group_name) { return access_group_name(set_name, group_name); }

int kestal_read_group_name_file(char *group_name) { return access_group_name(read_name, group_name); }
