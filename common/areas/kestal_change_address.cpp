#include "block_map.h"
#include "controller_state.h"
#include "inner_lock_section.h"
#include "kesta/area_files.h"
#include "text_field.h"
#include "trace.h"

namespace {

using kesta::AreaName;

constexpr kesta::InnerLockTexts lock_texts{"InnerLock Lock Failed(rtn=", ").", "InnerLock Unlock Failed.(rtn=", ")"};

struct NameSwitch {
    int block_id;
    const char *name;

    const char *mirror() const { return kesta::mirror_name(block_id); }  // as the traces call it
};

int write_name(const NameSwitch &target)
{
    AreaName value(target.name);
    TRACE(4, "[change_address] ...%s Write value=(%s)", target.mirror(), value.c_str());
    AreaName field;
    field.copy_in(target.name);  // all 32 bytes, what follows the terminator included
    if (kestal_non_volatile_rw_func(target.block_id, KESTA_BLOCK_WRITE, field.data(), AreaName::width, nullptr) !=
        KESTA_OK) {
        TRACE(1, "[change_address] %s Write ERROR (ID=%d,value=%s).", target.mirror(), target.block_id, value.c_str());
        return KESTA_ERR;
    }
    return KESTA_OK;
}

}  // namespace

int kestal_change_address(char *accept_name, char *backup_name, int flag)
{
    TRACE(5, "[change_address] START");
    const NameSwitch target = flag == KESTA_OFF ? NameSwitch{KESTA_BLOCK_ACCEPT_NAME, accept_name}
                                                : NameSwitch{KESTA_BLOCK_BACKUP_NAME, backup_name};
    const bool writes = flag == KESTA_OFF || flag == KESTA_ON;
    if (writes && !target.name) {
        FAILURE(ARGUMENT, 0, 1, "[change_address] Argument Error.");
        return KESTA_ERR_ARGUMENT;
    }
    kesta::InnerLockSection lock("change_address", lock_texts);
    if (lock.acquire(kesta::own_controller()) != KESTA_OK) {
        return KESTA_ERR;
    }
    int ret = writes ? write_name(target) : KESTA_OK;
    if (ret == KESTA_OK) {
        TRACE(3, "[change_address] ===> New Backup=(%s) New Accept=(%s)", AreaName(backup_name).c_str(),
              AreaName(accept_name).c_str());
    }
    if (lock.release() != KESTA_OK) {
        ret = KESTA_ERR;
    }
    TRACE(5, "[change_address] END ret=%d", ret);
    return ret;
}
