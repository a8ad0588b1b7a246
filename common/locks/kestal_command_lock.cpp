// The command lock: commands on different controllers that must not run beside one another.
//
// Each controller has a slot in the NV image: status, sign (the identifier: the second in which the lock was taken)
// and a time. Every access to the slots is one section of the inner lock; between two sections others come.
//
// Promised: a lock of type 1 or 3 is alone on the appliance; locks of type 2 stand beside one another if they were
// taken at the same moment. Nobody waits in here: who meets another lock gets KESTA_ERR_LOCKED. Processes of one
// controller are not kept apart: they share its slot (the local lock is for them).
//
// Steps:
//   take     read all slots; any that is taken refuses (type 1: a suspended one too); write the own slot; read all
//            again; another one that came meanwhile: withdraw, both get KESTA_ERR_LOCKED; store the group's name
//   suspend  a release that keeps the sign: the status is free, and the identifier reserves the lock against type 1
//   resume   take with the identifier, which signs don't refuse
//   convert  a type-1 lock becomes "backup running", with a new time: only while nobody else has one
//   release  with the identifier that the slot carries; group name, then slot, then what this process has seen of it
//
// What can go wrong, and what then:
//   - The holder dies: its slot stays. A process that asks again and again (kestal_global_command_lock_check), and
//     has seen the same time for more than 600 seconds, clears it. One that merely takes so long looks dead as well.
//   - Two controllers clear the slot of one dead holder: the second one may clear the lock that came after it (the
//     model's "two_sweeps").
//   - A release that fails between the group's name and the slot leaves the lock, without a name.
//
// models/command_lock.pml goes through all interleavings; scripts/check_models.sh lists what is excluded, and shows
// the shortest run of what is not. The tests: CommandLock (each step and fault), CommandLockProcesses (schedules).

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>

#include <array>
#include <cstdint>

#include "controller_state.h"
#include "controllers.h"
#include "inner_lock_section.h"
#include "kesta/area_files.h"
#include "kesta/block_access.h"
#include "kesta/command_lock.h"
#include "kesta/process.h"
#include "text_field.h"
#include "trace.h"

namespace {

using Slots = std::array<KESTA_COMMAND_LOCKINFO, KESTA_CONTROLLERS>;

static_assert(sizeof(KESTA_COMMAND_LOCKINFO) == 24);
static_assert(sizeof(Slots) == 96);

constexpr std::int64_t lock_seconds = 600;
constexpr int all_controllers = -1;
constexpr int full_release = 0;
constexpr int no_lock = 0;
constexpr int timed_out = 1;

// What a type of lock makes of the slot, and what it takes for a collision.
struct LockType {
    int lock_type;
    int status;
    bool reserves_identifiers;  // a suspended lock of anybody refuses a new one
    int coexists_with;          // status of others that is no collision; free: none
};

constexpr std::array<LockType, 3> lock_types{{
    {KESTA_LOCK_TYPE1, KESTA_LOCK_STATUS_TYPE1, true, KESTA_LOCK_STATUS_FREE},
    {KESTA_LOCK_TYPE2, KESTA_LOCK_STATUS_TYPE2, false, KESTA_LOCK_STATUS_TYPE2},
    {KESTA_LOCK_TYPE3, KESTA_LOCK_STATUS_TYPE3, false, KESTA_LOCK_STATUS_FREE},
}};

const LockType *find_type(int lock_type)
{
    for (const LockType &type : lock_types) {
        if (type.lock_type == lock_type) {
            return &type;
        }
    }
    return nullptr;
}

std::int64_t wall_seconds()
{
    struct timeval now {};
    gettimeofday(&now, nullptr);
    return now.tv_sec;
}

// Identifiers are compared, printed and returned as the low 32 bits of a sign.
int low_bits(std::int64_t value) { return static_cast<int>(static_cast<std::uint32_t>(value)); }

std::int64_t identifier_value(const char *identifier) { return strtoll(identifier, nullptr, 10); }

KESTA_COMMAND_LOCKINFO &slot_of(Slots &slots, int cnt_num) { return slots[static_cast<std::size_t>(cnt_num)]; }

int read_all_slots(Slots &slots, int cnt_num)
{
    return kestal_read_cmd_lockinfo(KESTA_BLOCK_LOCK_CNT0, slots.data(), sizeof(slots), cnt_num);
}

int write_slot(int block_id, KESTA_COMMAND_LOCKINFO record, int cnt_num)
{
    return kestal_write_cmd_lockinfo(block_id, &record, sizeof(record), cnt_num);
}

// One call of kestal_global_command_lock_func. Each step is an inner-lock section of its own: who
// wrote at the same time is found by reading again.
class Locking {
public:
    Locking(int cnt_num, char *lock_identifier, bool relock, int *locked_cnt)
        : cnt_num_(cnt_num), identifier_(lock_identifier), relock_(relock), locked_cnt_(locked_cnt)
    {
    }

    int run(int lock_type, const char *group_name)
    {
        int rtn = kestal_get_block_id(KESTA_IDTYPE_LOCK, cnt_num_, &block_id_);
        if (rtn != KESTA_OK) {
            TRACE(1, "[kestal_global_command_lock] Get Block ID(ID TYPE=LOCK) Error. result=%d", rtn);
            return KESTA_ERR;
        }
        if (read_slots() != KESTA_OK) {
            return KESTA_ERR;
        }
        const LockType *type = find_type(lock_type);
        if (!type) {
            FAILURE(ARGUMENT, 0, 1, "[kestal_global_command_lock] Argument Error. lock_type=%d.", lock_type);
            return KESTA_ERR_ARGUMENT;
        }
        if (!admitted(*type)) {
            return KESTA_ERR_LOCKED;
        }
        rtn = write_slot(block_id_, make_record(*type), cnt_num_);
        if (rtn != KESTA_OK) {
            TRACE(1, "[kestal_global_command_lock] Write Lock info Error. result=%d", rtn);
            return KESTA_ERR;
        }
        if (read_slots() != KESTA_OK) {
            return KESTA_ERR;
        }
        if (collides(*type)) {
            withdraw();
            return KESTA_ERR_LOCKED;
        }
        return store_group(group_name);
    }

private:
    int read_slots()
    {
        const int rtn = read_all_slots(slots_, cnt_num_);
        if (rtn != KESTA_OK) {
            TRACE(1, "[kestal_global_command_lock] Read Lock info Error. result=%d", rtn);
        }
        return rtn;
    }

    void met(int controller)
    {
        if (locked_cnt_) {
            *locked_cnt_ = controller;
        }
    }

    // The own slot counts like the others.
    bool admitted(const LockType &type)
    {
        const bool heeds_signs = type.reserves_identifiers && !relock_;
        for (int i = 0; i < KESTA_CONTROLLERS; ++i) {
            const KESTA_COMMAND_LOCKINFO &slot = slot_of(slots_, i);
            if (slot.status != KESTA_LOCK_STATUS_FREE) {
                FAILURE(LOCKED, 0, 1,
                        "[kestal_global_command_lock] Lock Error. Already locked Command lock. "
                        "CNT=%d lockstatus=%d",
                        i, slot.status);
                met(i);
                return false;
            }
            if (heeds_signs && slot.sign != 0) {
                FAILURE(LOCKED, 0, 1,
                        "[kestal_global_command_lock] Sign Error. Already locked Command lock. CNT=%d "
                        "sign=%d",
                        i, low_bits(slot.sign));
                met(i);
                return false;
            }
        }
        return true;
    }

    KESTA_COMMAND_LOCKINFO make_record(const LockType &type)
    {
        KESTA_COMMAND_LOCKINFO record{};
        record.status = type.status;
        if (relock_) {
            record.sign = identifier_value(identifier_);
            record.timeout = slot_of(slots_, cnt_num_).timeout;
        } else {
            record.sign = wall_seconds();
            record.timeout = record.sign + lock_seconds;
            snprintf(identifier_, KESTA_LOCK_IDENTIFIER_SIZE, "%d", low_bits(record.sign));
        }
        return record;
    }

    // Two controllers that wrote together both find the other one, and both withdraw.
    bool collides(const LockType &type)
    {
        for (int i = 0; i < KESTA_CONTROLLERS; ++i) {
            const int status = slot_of(slots_, i).status;
            if (i == cnt_num_ || status == KESTA_LOCK_STATUS_FREE || status == type.coexists_with) {
                continue;
            }
            if (status == KESTA_LOCK_STATUS_TYPE1) {
                FAILURE(LOCKED, 0, 1,
                        "[kestal_global_command_lock] Lock Error. After locked Command lock. CNT=%d "
                        "lockstatus=%d",
                        i, status);
            } else {
                FAILURE(LOCKED, 0, 1,
                        "[kestal_global_command_lock] Lock Error. Other locked Command lock. CNT=%d "
                        "lockstatus=%d",
                        i, status);
            }
            met(i);
            return true;
        }
        return false;
    }

    void withdraw()
    {
        const int rtn = write_slot(block_id_, KESTA_COMMAND_LOCKINFO{}, cnt_num_);
        if (rtn != KESTA_OK) {
            TRACE(1, "[kestal_global_command_lock] Write Lock info Error. result=%d", rtn);
        }
    }

    // The lock stays written where its group name can't be stored.
    static int store_group(const char *group_name)
    {
        if (group_name) {
            kesta::GroupName field(group_name);
            const int rtn = kestal_set_group_name_file(field.data());
            if (rtn != KESTA_OK) {
                TRACE(1, "[kestal_global_command_lock] Set Request Group name(%s) ERROR result=%d", group_name, rtn);
                return KESTA_ERR;
            }
        }
        TRACE(5, "[kestal_global_command_lock] Global command lock End.");
        return KESTA_OK;
    }

    const int cnt_num_;
    char *const identifier_;
    const bool relock_;
    int *const locked_cnt_;
    int block_id_ = 0;
    Slots slots_{};
};

bool is_taken(const KESTA_COMMAND_LOCKINFO &slot) { return slot.status != KESTA_LOCK_STATUS_FREE || slot.sign != 0; }

int clear_timed_out(int controller, int timeout)
{
    TRACE(4, "[kestal_global_command_lock_check] Command lock Timeout OCCUR. cnt_num=%d timeout=%d", controller,
          timeout);
    const int rtn = kestal_global_command_unlock_func(controller, nullptr, full_release);
    if (rtn != KESTA_OK) {
        TRACE(1, "[global_command_lock_check] Unlock Error. CNT(%d) result=%d", controller, rtn);
        return KESTA_ERR;
    }
    return KESTA_OK;
}

// Looks at the slots from first to last. A lock that is alive ends the search, and its identifier
// is the result.
int sweep(Slots &slots, int first, int last, char *group_name_out, int *locked_cnt)
{
    for (int i = first; i <= last; ++i) {
        const KESTA_COMMAND_LOCKINFO &slot = slot_of(slots, i);
        if (!is_taken(slot)) {
            continue;
        }
        const int timeout = low_bits(slot.timeout);
        if (kestal_compare_cntlock_timeout(i, timeout) != timed_out) {
            if (group_name_out) {
                (void)kestal_read_group_name_file(group_name_out);  // traced; the lock counts
            }
            if (locked_cnt) {
                *locked_cnt = i;
            }
            return low_bits(slot.sign);
        }
        if (clear_timed_out(i, timeout) != KESTA_OK) {
            return KESTA_ERR;
        }
    }
    TRACE(5, "[global_command_lock_check] Command lock Timeout chack End.");
    return no_lock;
}

// What a release leaves in the slot; refused if the identifier is not the lock's.
int release_record(KESTA_COMMAND_LOCKINFO &record, const char *lock_identifier, int keep)
{
    if (keep != full_release) {
        record.status = KESTA_LOCK_STATUS_FREE;
        return KESTA_OK;
    }
    if (lock_identifier) {
        if (kestal_isdigit(lock_identifier) != KESTA_OK) {
            FAILURE(CONTENT, 0, 1, "[kestal_global_command_unlock] isdigit check Error. lock_identifier=%s",
                    lock_identifier);
            return KESTA_ERR;
        }
        const int shown = low_bits(identifier_value(lock_identifier));
        if (shown != low_bits(record.sign)) {
            FAILURE(LOCKED, 0, 2,
                    "[kestal_global_command_unlock] Lock_identifier unmatch. (volatile:%d, "
                    "request:%d)",
                    low_bits(record.sign), shown);
            return KESTA_ERR_LOCK_IDENTIFIER;
        }
    }
    record = {};
    return KESTA_OK;
}

int clear_group_name()
{
    std::array<char, KESTA_GROUP_NAME_SIZE> no_name{};
    const int rtn = kestal_set_group_name_file(no_name.data());
    if (rtn != KESTA_OK) {
        TRACE(1, "[kestal_global_command_unlock] Reset Request Group name(%s) ERROR result=%d", no_name.data(), rtn);
    }
    return rtn;
}

}  // namespace

int kestal_global_command_lock_func(int cnt_num, int lock_type, char *lock_identifier, char *group_name, int relock,
                                    int *locked_cnt)
{
    TRACE(5, "[kestal_global_command_lock] Global command lock Start. cnt_num=%d lock_type=%d", cnt_num, lock_type);
    if (!lock_identifier) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_global_command_lock] Argument Error.(lock_identifier=NULL)");
        return KESTA_ERR_ARGUMENT;
    }
    return Locking(cnt_num, lock_identifier, relock != 0, locked_cnt).run(lock_type, group_name);
}

int kestal_global_command_lock_check(int cnt_num, char *group_name_out, int *locked_cnt)
{
    TRACE(5, "[global_command_lock_check] Command lock Timeout chack Start. cnt_num=%d", cnt_num);
    const bool all = cnt_num == all_controllers;
    if (!all && !kesta::is_controller(cnt_num)) {
        FAILURE(ARGUMENT, 0, 1, "[global_command_lock_check] Parameter Error. cnt_num=%d", cnt_num);
        return KESTA_ERR;
    }
    Slots slots{};
    const int rtn = read_all_slots(slots, kesta::own_controller());
    if (rtn != KESTA_OK) {
        TRACE(1, "[global_command_lock_check] Read Lock info of CNT(%d) Error. result=%d", cnt_num, rtn);
        return KESTA_ERR;
    }
    return sweep(slots, all ? 0 : cnt_num, all ? KESTA_CONTROLLERS - 1 : cnt_num, group_name_out, locked_cnt);
}

int kestal_global_command_unlock_func(int cnt_num, const char *lock_identifier, int keep)
{
    TRACE(4,
          "[kestal_global_command_unlock] Global command unlock Start. cnt_num=%d "
          "lock_identifier=%s",
          cnt_num, lock_identifier ? lock_identifier : "NULL");
    int block_id = 0;
    int rtn = kestal_get_block_id(KESTA_IDTYPE_LOCK, cnt_num, &block_id);
    if (rtn != KESTA_OK) {
        TRACE(1, "[kestal_global_command_unlock] Get Block ID(ID TYPE=LOCK) Error. result=%d", rtn);
        return KESTA_ERR;
    }
    KESTA_COMMAND_LOCKINFO record{};
    rtn = kestal_read_cmd_lockinfo(block_id, &record, sizeof(record), cnt_num);
    if (rtn != KESTA_OK) {
        TRACE(1, "[kestal_global_command_unlock] Read Lock info Error. result=%d", rtn);
        return KESTA_ERR;
    }
    TRACE(4, "[kestal_global_command_unlock] read_cmd_lockinfo end. block_id=%d", block_id);
    rtn = release_record(record, lock_identifier, keep);
    if (rtn != KESTA_OK) {
        return rtn;
    }
    TRACE(4, "[kestal_global_command_unlock] write_cmd_lockinfo start. block_id=%d", block_id);
    if (clear_group_name() != KESTA_OK) {
        return KESTA_ERR;
    }
    rtn = write_slot(block_id, record, cnt_num);
    if (rtn != KESTA_OK) {
        TRACE(1, "[kestal_global_command_unlock] Write Lock info Error. result=%d", rtn);
        return KESTA_ERR;
    }
    rtn = kestal_reset_cntlock_timeout(cnt_num);
    if (rtn != KESTA_OK) {
        TRACE(1, "[kestal_global_command_unlock] Write Lockinfo Error. cnt_num=%d sign=%d result=%d", cnt_num,
              low_bits(record.sign), rtn);
    }
    TRACE(5, "[kestal_global_command_unlock] Global command unlock End.");
    return KESTA_OK;
}

namespace {

// Whether the own slot is a type-1 lock of that identifier, and nobody else has a lock.
int check_convertible(Slots &slots, int own, const char *lock_identifier)
{
    const KESTA_COMMAND_LOCKINFO &slot = slot_of(slots, own);
    if (low_bits(slot.sign) != low_bits(identifier_value(lock_identifier))) {
        FAILURE(LOCKED, 0, 1, "[kestal_backup_lock] Lock_identifier unmatch. lock_identifier=%s", lock_identifier);
        return KESTA_ERR_LOCK_IDENTIFIER;
    }
    if (slot.status != KESTA_LOCK_STATUS_TYPE1) {
        FAILURE(LOCKED, 0, 1, "[kestal_backup_lock] Lock Status Error");
        return KESTA_ERR;
    }
    for (int i = 0; i < KESTA_CONTROLLERS; ++i) {
        const int status = slot_of(slots, i).status;
        if (i != own && status != KESTA_LOCK_STATUS_FREE) {
            FAILURE(LOCKED, 0, 1, "[kestal_backup_lock] Lock Error. LOCK CNT(%d) STS(%d) Command EXE", i, status);
            return KESTA_ERR;
        }
    }
    return KESTA_OK;
}

}  // namespace

int kestal_backup_lock(const char *lock_identifier)
{
    const int own = kesta::own_controller();
    TRACE(5, "[kestal_backup_lock] Backup command lock Start. cnt_num=%d lock_identifier=%s", own,
          lock_identifier ? lock_identifier : "NULL");
    if (!lock_identifier) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_backup_lock] Argument Error. lock_identifier=NULL");
        return KESTA_ERR_ARGUMENT;
    }
    if (kestal_isdigit(lock_identifier) != KESTA_OK) {
        FAILURE(CONTENT, 0, 1, "[kestal_backup_lock] isdigit check Error. lock_identifier=%s", lock_identifier);
        return KESTA_ERR;
    }
    int block_id = 0;
    int rtn = kestal_get_block_id(KESTA_IDTYPE_LOCK, own, &block_id);
    if (rtn != KESTA_OK) {
        TRACE(1, "[kestal_backup_lock] Get Block ID(ID TYPE=LOCK) Error. result=%d", rtn);
        return KESTA_ERR;
    }
    Slots slots{};
    rtn = read_all_slots(slots, own);
    if (rtn != KESTA_OK) {
        TRACE(1, "[kestal_backup_lock] Read Lock info Error. result=%d", rtn);
        return KESTA_ERR;
    }
    rtn = check_convertible(slots, own, lock_identifier);
    if (rtn != KESTA_OK) {
        return rtn;
    }
    KESTA_COMMAND_LOCKINFO record{};
    record.status = KESTA_LOCK_STATUS_BACKUP;
    record.sign = slot_of(slots, own).sign;
    record.timeout = wall_seconds() + lock_seconds;
    rtn = write_slot(block_id, record, own);
    if (rtn != KESTA_OK) {
        TRACE(1, "[kestal_backup_lock] Write Lock info Error. result=%d", rtn);
        return KESTA_ERR;
    }
    TRACE(5, "[kestal_backup_lock] Backup command lock End.");
    return KESTA_OK;
}
