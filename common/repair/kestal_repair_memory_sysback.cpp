#include <errno.h>
#include <pthread.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <numeric>

#include "kesta/block_access.h"
#include "kesta/nv_image.h"
#include "kesta/system_backup_area.h"
#include "nv_items.h"
#include "ownership.h"
#include "repair_state.h"
#include "slot_names.h"
#include "text_field.h"
#include "trace.h"

namespace {

struct RepairItem {
    int volid;
    size_t len;
    const char *log;
    int rank;
};

constexpr bool is_repaired(const kesta::NvItemRow &row) { return row.item.mirror != nullptr; }
constexpr RepairItem repair_of(const kesta::NvItemRow &row)
{
    return {row.item.block_id, row.item.mirror_size, row.repair_label, row.repair_rank};
}

// In the sequence in which they are copied.
constexpr auto repair_allitem =
    kesta::sorted(kesta::view_of_items<is_repaired, repair_of>(),
                  [](const RepairItem &one, const RepairItem &other) { return one.rank < other.rank; });
constexpr int items = static_cast<int>(repair_allitem.size());

constexpr int max_passes = 1200;
constexpr unsigned pass_us = 100000;
constexpr int report_period = 10;
constexpr int copy_failed = 1;

constexpr int memory_bad = 1;
constexpr int sysback_bad = 2;
constexpr int both_bad = memory_bad | sysback_bad;
constexpr int slot_name_length = sizeof(KESTA_SLOT0) - 1;
constexpr int compared_length = sizeof(KESTA_SLOT0);

// One of the names that tell whether a side is good.
struct CheckRow {
    int (*read)(int, int, void *, unsigned int);
    int arg_block_id;
    int arg_rw_flag;
    int err;
    const char *side;
    const char *name;
};
constexpr std::array<CheckRow, 4> repair_mem_sys{{
    {kestal_non_volatile_rw_memory, KESTA_BLOCK_BACKUP_NAME, KESTA_BLOCK_READ, memory_bad, "NonVolatile", "Backup"},
    {kestal_non_volatile_rw_memory, KESTA_BLOCK_ACCEPT_NAME, KESTA_BLOCK_READ, memory_bad, "NonVolatile", "Accept"},
    {kestal_non_volatile_rw_sysback, KESTA_BLOCK_BACKUP_NAME, KESTA_FILE_READ, sysback_bad, "SystemBackup", "Backup"},
    {kestal_non_volatile_rw_sysback, KESTA_BLOCK_ACCEPT_NAME, KESTA_FILE_READ, sysback_bad, "SystemBackup", "Accept"},
}};

constexpr const char *entry_name = "kestal_repair_memory_sysback";

// 0, or the row's error.
int check_side(const CheckRow &row)
{
    kesta::AreaName name;
    int rtn = row.read(row.arg_block_id, row.arg_rw_flag, name.data(), KESTA_AREA_NAME_SIZE);
    if (rtn != KESTA_OK) {
        TRACE(1, "[%s] %s(%s) Read ERROR rtn=%d", entry_name, row.side, row.name, rtn);
        return row.err;
    }
    rtn = kestal_repair_filename_check(name.data(), static_cast<int>(strlen(name.c_str())));
    if (rtn != KESTA_OK) {
        TRACE(1, "[%s] %s(%s) ReadCheck ERROR rtn=%d", entry_name, row.side, row.name, rtn);
        return row.err;
    }
    return 0;
}

int repair_bad_side(int mask, KESTA_REPAIR_SYSVOL_DATA *data, int count)
{
    if (mask == 0) {
        TRACE(4, "[repair_memory_sysback] Repair No Need.");
        return KESTA_OK;
    }
    if (mask == both_bad) {
        TRACE(1, "[repair_memory_sysback] Repair Non Done.");
        return KESTA_ERR;
    }
    const bool to_memory = mask == memory_bad;
    const int rtn =
        kestal_repair_allitem(to_memory ? KESTA_REPAIR_FROM_SYSBACK : KESTA_REPAIR_FROM_MEMORY, data, count);
    if (rtn != KESTA_OK) {
        TRACE(1, "[%s] Repair Failed(%s).", entry_name, to_memory ? "Sysback->Memory" : "Memory->Sysback");
        return KESTA_ERR;
    }
    return KESTA_OK;
}

int copy_in_sequence(int direction)
{
    for (const RepairItem &item : repair_allitem) {
        const int rtn = kestal_repair_rw(direction, item.volid, item.len);
        if (rtn != KESTA_OK) {
            TRACE(1, "[repair_allitem] Repair Failed(%s). rtn=%d", item.log, rtn);
            return copy_failed;
        }
    }
    return KESTA_OK;
}

// What the workers get: it outlives a worker that was given up.
constexpr auto all_indices()
{
    std::array<int, items> all{};
    std::iota(all.begin(), all.end(), 0);
    return all;
}
auto indices = all_indices();

// The twelve copies at once.
class Workers {
public:
    Workers() = default;
    ~Workers()
    {
        const kesta::CancelOff off;
        give_up_the_rest();  // on the unwinding of a caller that is cancelled while it waits
    }
    Workers(const Workers &) = delete;
    Workers &operator=(const Workers &) = delete;

    bool run()
    {
        start_all();
        await_all();
        give_up_the_rest();
        return !error_;
    }

private:
    enum class State { none, running, collected };

    struct Worker {
        pthread_t thread{};
        State state = State::none;
    };

    void start_all()
    {
        for (int i = 0; i < items; ++i) {
            Worker &worker = worker_at(i);
            const int rtn = pthread_create(&worker.thread, nullptr, kestal_repair_thread_func,
                                           &indices[static_cast<std::size_t>(i)]);
            if (rtn != 0) {
                FAILURE(SYSTEM, rtn, 1, "[repair_allitem] Thread[%d] Execute ERROR rtn=%d", i, rtn);
                error_ = true;  // its item and those behind it are not copied: never a success
                return;
            }
            worker.state = State::running;
        }
    }

    void await_all()
    {
        for (int pass = 0; pass < max_passes; ++pass) {
            const int unfinished = collect();
            if (unfinished < 0) {
                return;
            }
            if (pass % report_period == 0) {
                TRACE(4, "[repair_allitem] Thread(%d)[%d/%d] don't Finish. Wait...", unfinished, pass, max_passes);
            }
            usleep(pass_us);
        }
    }

    // Joins the workers in order, up to the first that still runs. Returns its index; -1: none.
    int collect()
    {
        for (int i = 0; i < items; ++i) {
            Worker &worker = worker_at(i);
            if (worker.state != State::running) {
                continue;
            }
            void *result = nullptr;
            if (pthread_tryjoin_np(worker.thread, &result) != 0) {
                return i;
            }
            worker.state = State::collected;
            const int rtn = static_cast<int>(reinterpret_cast<std::intptr_t>(result));
            TRACE(4, "[repair_allitem] RtnValue(%d)(rtn=%d).", i, rtn);
            if (rtn != KESTA_OK) {
                TRACE(1, "[repair_allitem] RtnValue(%d) Error(rtn=%d).", i, rtn);
                error_ = true;
            }
        }
        return -1;
    }

    void give_up_the_rest()
    {
        for (int i = 0; i < items; ++i) {
            Worker &worker = worker_at(i);
            if (worker.state != State::running) {
                continue;
            }
            int rtn = pthread_cancel(worker.thread);
            if (rtn != 0) {
                SYSTEM_FAILURE(error, 1, "[repair_allitem] pthread_cancel Error. (rtn=%d, errno=%d)", rtn, error);
            }
            rtn = pthread_detach(worker.thread);
            if (rtn != 0) {
                SYSTEM_FAILURE(error, 1, "[repair_allitem] pthread_detach Error. (rtn=%d, errno=%d)", rtn, error);
            }
            TRACE(1, "[repair_allitem] Thread(%d) don't Finish. Error(rtn=%d).", i, rtn);
            worker.state = State::collected;
            error_ = true;
        }
    }

    Worker &worker_at(int index) { return workers_[static_cast<std::size_t>(index)]; }

    std::array<Worker, items> workers_{};
    bool error_ = false;
};

int copy_in_threads()
{
    TRACE(4, "[repair_allitem] called from env_restore2.");
    int result = KESTA_OK;
    if (!Workers().run()) {
        TRACE(1, "[repair_allitem] Thread ReturnValue Error.");
        result = KESTA_ERR;
    }
    return result;
}

}  // namespace

int kestal_repair_filename_check(char *name, int length)
{
    if (!name) {
        FAILURE(ARGUMENT, 0, 1, "[repair_filename_check] Argument ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    if (length != slot_name_length) {
        TRACE(4, "[repair_filename_check] filelen Error(%d,%d)", length, compared_length);
        return KESTA_ERR;
    }
    TRACE(4, "[repair_filename_check] filename=%s(%d).", name, length);
    if (!kesta::is_slot_name(name)) {
        TRACE(4, "[repair_filename_check] check failed");
        return KESTA_ERR;
    }
    return KESTA_OK;
}

int kestal_repair_memory_sysback(KESTA_REPAIR_SYSVOL_DATA *data, int count)
{
    TRACE(4, "[repair_memory_sysback] START");
    repair_state.with_supplied_values = KESTA_OFF;
    int mask = 0;
    for (const CheckRow &row : repair_mem_sys) {
        mask |= check_side(row);
    }
    const int result = repair_bad_side(mask, data, count);
    TRACE(4, "[repair_memory_sysback] Memory & Sysback Repair End.");
    return result;
}

int kestal_repair_memory_from_sysback(KESTA_REPAIR_SYSVOL_DATA *data, int count, char *verback, char *verid)
{
    if (!verback || !verid) {
        FAILURE(ARGUMENT, 0, 1, "[repair_memory_from_sysback] Argument ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    repair_state.with_supplied_values = KESTA_ON;
    repair_state.backup_version = verback;
    repair_state.numbering_version = verid;
    const int rtn = kestal_repair_allitem(KESTA_REPAIR_FROM_SYSBACK, data, count);
    if (rtn != KESTA_OK) {
        TRACE(1, "[repair_memory_from_sysback] Failed to repair Memory.");
    }
    return rtn;
}

int kestal_repair_allitem(int direction, KESTA_REPAIR_SYSVOL_DATA *data, int count)
{
    TRACE(5, "[repair_allitem] START");
    repair_state.records = data;
    repair_state.record_count = count;
    repair_state.direction = direction;
    const int result = repair_state.with_supplied_values == KESTA_OFF ? copy_in_sequence(direction) : copy_in_threads();
    TRACE(4, "[repair_allitem] END");
    return result;
}

void *kestal_repair_thread_func(void *index)
{
    int result = KESTA_ERR_ARGUMENT;
    if (index) {
        const int item = *static_cast<const int *>(index);
        if (item >= 0 && item < items) {
            const RepairItem &row = repair_allitem[static_cast<std::size_t>(item)];
            result = kestal_repair_rw(repair_state.direction, row.volid, row.len);
        }
    }
    // A thread's result is a number here: that is the interface.
    return reinterpret_cast<void *>(static_cast<std::intptr_t>(result));  // NOLINT(performance-no-int-to-ptr)
}
