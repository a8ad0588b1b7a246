#include <string.h>

#include "block_map.h"
#include "controller_state.h"
#include "inner_lock_section.h"
#include "kesta/area_files.h"
#include "slot_names.h"
#include "text_field.h"
#include "trace.h"

namespace {

using kesta::AreaName;
using kesta::is_slot_name;

constexpr kesta::InnerLockTexts lock_texts{"InnerLock Lock ERROR rtn=", "", "InnerLock Unlock ERROR rtn=", ""};

// One of the two names: its block, its buffer and its length in this access.
struct NameAccess {
    int rw_flag;
    int block_id;
    char *name;
    unsigned int length = 0;

    bool is_read() const { return rw_flag == KESTA_BLOCK_READ; }
    const char *mirror() const { return kesta::mirror_name(block_id); }  // as the traces call it
};

// Sets the length of the transfer. A name that is read may fill its field; a name that is written
// goes in with its terminator, and what is stored behind that stays.
int prepare(NameAccess &access)
{
    if (access.is_read()) {
        access.name[KESTA_AREA_NAME_SIZE - 1] = '\0';
        access.length = KESTA_AREA_NAME_SIZE;
    } else {
        const std::size_t length = strlen(access.name);
        if (length >= KESTA_AREA_NAME_SIZE) {
            FAILURE(ARGUMENT, 0, 1, "[area_file_rw] Length(%d) ERROR", static_cast<int>(length));
            return KESTA_ERR_ARGUMENT;
        }
        access.length = static_cast<unsigned int>(length + 1);
    }
    TRACE(5, "[area_file_rw] kestal_non_volatile_rw(%s) len=%d", access.mirror(), static_cast<int>(access.length));
    return KESTA_OK;
}

int access_both_places(const NameAccess &access)
{
    if (kestal_non_volatile_rw_func(access.block_id, access.rw_flag, access.name, access.length, nullptr) != KESTA_OK) {
        TRACE(1, "[area_file_rw] FileAccess ERROR (%s) rw_flag=%d", access.mirror(), access.rw_flag);
        return KESTA_ERR;
    }
    return KESTA_OK;
}

// The accept name is taken from NV memory if it is one of the two slots.
bool memory_has_slot_name(const NameAccess &access)
{
    if (kestal_non_volatile_rw_memory(access.block_id, access.rw_flag, access.name, access.length) != KESTA_OK) {
        TRACE(1, "[area_file_rw] non volatile access ERROR (%s) rw_flag=%d", access.mirror(), access.rw_flag);
        return false;
    }
    if (!is_slot_name(access.name)) {
        FAILURE(CONTENT, 0, 1, "[area_file_rw] non volatile data ERROR (%s) a_file=%s", access.mirror(),
                AreaName(access.name).c_str());
        return false;
    }
    return true;
}

int access_accept_name(int rw_flag, char *name)
{
    NameAccess access{rw_flag, KESTA_BLOCK_ACCEPT_NAME, name};
    if (const int refused = prepare(access); refused != KESTA_OK) {
        return refused;
    }
    if (access.is_read() && memory_has_slot_name(access)) {
        return KESTA_OK;
    }
    return access_both_places(access);
}

int access_backup_name(int rw_flag, char *name)
{
    NameAccess access{rw_flag, KESTA_BLOCK_BACKUP_NAME, name};
    if (const int refused = prepare(access); refused != KESTA_OK) {
        return refused;
    }
    return access_both_places(access);
}

}  // namespace

int kestal_area_file_rw(int rw_flag, char *accept_name, char *backup_name)
{
    TRACE(5, "[area_file_rw] START");
    if (!accept_name && !backup_name) {
        FAILURE(ARGUMENT, 0, 1, "[area_file_rw] Argument ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    if (rw_flag != KESTA_BLOCK_WRITE && rw_flag != KESTA_BLOCK_READ) {
        FAILURE(ARGUMENT, 0, 1, "[area_file_rw] Argument(rw_flag) ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    kesta::InnerLockSection lock("area_file_rw", lock_texts);
    if (lock.acquire(kesta::own_controller()) != KESTA_OK) {
        return KESTA_ERR;
    }
    int ret = KESTA_OK;
    if (accept_name) {
        ret = access_accept_name(rw_flag, accept_name);
    }
    if (backup_name && ret == KESTA_OK) {
        ret = access_backup_name(rw_flag, backup_name);
    }
    if (lock.release() != KESTA_OK) {
        return KESTA_ERR;
    }
    TRACE(5, "[area_file_rw] END ret=%d", ret);
    return ret;
}
