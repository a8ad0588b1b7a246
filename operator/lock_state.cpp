#include "lock_state.h"

#include <time.h>

#include "appliance_state.h"
#include "failure.h"
#include "holder_note.h"
#include "printable.h"
#include "utc.h"

namespace engine {
namespace {

const char *kind(const CommandLock &lock)
{
    switch (lock.status) {
    case KESTA_LOCK_STATUS_FREE:
        return "a suspended lock";
    case KESTA_LOCK_STATUS_TYPE1:
        return "a type-1 lock";
    case KESTA_LOCK_STATUS_BACKUP:
        return "the lock of a running backup";
    case KESTA_LOCK_STATUS_TYPE2:
        return "a type-2 lock";
    case KESTA_LOCK_STATUS_TYPE3:
        return "a type-3 lock";
    default:
        return "a lock of unknown type";
    }
}

}  // namespace

bool CommandLock::looks_alive() const { return time(nullptr) <= fresh_until && gone_holder == 0; }

LockState read_lock_state()
{
    LockState state;
    if (kestal_non_volatile_rw_memory(KESTA_BLOCK_LOCK_CNT0, KESTA_BLOCK_READ, state.slots.data(),
                                      sizeof(state.slots)) != KESTA_OK) {
        fail_call("read-failed", "The command locks could not be read from the NV memory.",
                  "Look at the traces (--trace 1) for the failed call.");
    }
    state.group = plain_text(field_text(read_block(find_block("group"), From::memory).bytes));
    for (int i = 0; i < KESTA_CONTROLLERS; ++i) {
        const KESTA_COMMAND_LOCKINFO &slot = state.slots[static_cast<std::size_t>(i)];
        if (slot.status != KESTA_LOCK_STATUS_FREE || slot.sign != 0) {
            state.held.push_back({i, slot.status, slot.sign, slot.timeout, gone_holder(i, slot.sign)});
        }
    }
    return state;
}

std::string describe(const CommandLock &lock, const std::string &group)
{
    std::string text = controller_name(lock.controller) + " holds " + kind(lock) + " since " + utc(lock.identifier);
    if (!group.empty()) {
        text += " for group " + group;
    }
    text += ", identifier " + std::to_string(lock.identifier) + "; ";
    if (lock.gone_holder != 0) {
        return text + "its process " + std::to_string(lock.gone_holder) + " is gone";
    }
    return text + (lock.looks_alive() ? "it looks alive, fresh until " + utc(lock.fresh_until)
                                      : "it is more than 10 minutes old, and may be dead");
}

const char *type_word(const CommandLock &lock)
{
    switch (lock.status) {
    case KESTA_LOCK_STATUS_FREE:
        return "suspended";
    case KESTA_LOCK_STATUS_TYPE1:
        return "type1";
    case KESTA_LOCK_STATUS_BACKUP:
        return "backup";
    case KESTA_LOCK_STATUS_TYPE2:
        return "type2";
    case KESTA_LOCK_STATUS_TYPE3:
        return "type3";
    default:
        return "unknown";
    }
}

std::string clearing_command(const CommandLock &lock)
{
    return "kestactl lock release " + std::to_string(lock.identifier) + " --controller CNT" +
           std::to_string(lock.controller);
}

void refuse_locked(std::string_view message, const LockState &state, int controller)
{
    for (const CommandLock &lock : state.held) {
        if (lock.controller == controller) {
            throw Failure(Exit::locked, "locked", std::string(message) + ": " + describe(lock, state.group) + ".",
                          (lock.gone_holder != 0
                               ? "Nobody will let go of it. Clear it: "
                               : "Wait for it with --wait SECONDS. If its command is dead, clear it: ") +
                              clearing_command(lock));
        }
    }
    throw Failure(Exit::locked, "locked",
                  std::string(message) + ": " + controller_name(controller) + " was taking a lock too.",
                  "Try again, or wait with --wait SECONDS.");
}

}  // namespace engine
