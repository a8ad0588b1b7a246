// The inner lock: whoever changes the NV image is alone in it, on all controllers.
//
// NV memory offers whole reads and writes, and no atomic operation. Each controller has a slot of a status and a
// token.
//
// Promised: of controllers, and of processes on one of them, at most one is between a successful
// kestal_cntl_innerlock and its release; a slot whose owner died is free again after 30 seconds of somebody's
// waiting; a call ends after 1000 attempts.
//
// Steps of an attempt:
//   1. The record lock keeps the other processes of this controller out (innerlock_record.h). Without it: look only.
//   2. Look at all four slots. One is set: step 5.
//   3. Claim: write status and token into the own slot.
//   4. Look again. Only the own claim is there: the lock is held. Another one came too: withdraw, step 5. The own
//      slot carries another token: leave it to its new owner.
//   5. Sweep: a slot whose token has been the same for more than 30 seconds, since this call first saw it, is
//      cleared. Wait 100 ms and 10 ms for each controller number, so that two that collided don't collide again.
//
// What can go wrong, and what then:
//   - The owner dies: its slot is swept. A sweep that looks at the slot while another one has cleared it, and a third
//     has claimed it, clears that claim: two sweepers may let two in (the model's "two_sweepers").
//   - A holder stalls past its 30 seconds and goes on: it is inside beside the next one ("stalled_holder").
//   - A process is stopped within its attempt: it is passed by, and late() keeps it from writing when it goes on, but
//     for a stop between late() and the write ("stopped_before_write").
//
// models/inner_lock.pml goes through all interleavings of these steps; scripts/check_models.sh lists what is
// excluded, and shows the shortest run of what is not. The tests: InnerLock (each step and fault), InnerLockProcesses
// (schedules of processes), Stress.LocksBetweenControllers.

#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>

#include "controller_state.h"
#include "controllers.h"
#include "innerlock_record.h"
#include "kesta/block_access.h"
#include "kesta/inner_lock.h"
#include "observation.h"
#include "ownership.h"
#include "process_clock.h"
#include "trace.h"

using kesta::innerlock_mutex;

namespace {

using kesta::is_controller;

using Slots = std::array<KESTA_INNERLOCK_BUF, KESTA_CONTROLLERS>;
using Observations = std::array<KESTAL_LOCKBUFFER_STRUCT, KESTA_CONTROLLERS>;

static_assert(sizeof(Slots) == 64);

constexpr int slot_free = 0;
constexpr int slot_held = 1;
constexpr int own_slot_taken_over = 1;  // rtnstatus: the own slot carries another token
constexpr int clear_given_slot = 1;

constexpr int max_attempts = 1000;
constexpr int report_period = 100;  // attempts 10, 110, 210, ... are reported
constexpr int report_phase = 10;
constexpr unsigned back_off_us = 100000;
constexpr unsigned back_off_step_us = 10000;  // the controllers retry at different rates
constexpr long token_modulus = 10000;
constexpr clock_t stale_after_seconds = 30;
constexpr int stale = 1;
constexpr int not_stale = 0;

int write_slot(int block_id, KESTA_INNERLOCK_BUF record)
{
    return kestal_non_volatile_rw_func(block_id, KESTA_BLOCK_WRITE, &record, sizeof(record), nullptr);
}

// One call of kestal_cntl_innerlock.
class Acquisition {
public:
    Acquisition(int cntno, int own_block)
        : own_block_(own_block), back_off_(back_off_us + back_off_step_us * static_cast<unsigned>(cntno))
    {
        claim_.status = slot_held;
        make_token();
    }

    int run()
    {
        kesta::MutexGuard guard(innerlock_mutex);
        const OpenRecord record(record_);  // opened and closed under the mutex: a close lets go of the lock
        for (int r = 1;; ++r) {
            int result = KESTA_OK;
            if (attempt(r, result)) {
                return result;
            }
            if (r % report_period == report_phase) {
                TRACE(3, "[kestal_cntl_innerlock] [%d/%d] InnerLock NG", r, max_attempts);
            }
            usleep(back_off_);
            if (r >= max_attempts) {
                FAILURE(LOCKED, 0, 1, "[kestal_cntl_innerlock] InnerLock  ERROR");
                return KESTA_ERR_INNERLOCK_WRITE;
            }
        }
    }

private:
    // The record of one run, known to the steps for as long as it is open.
    class OpenRecord {
    public:
        explicit OpenRecord(kesta::InnerlockRecord *&known) : known_(known) { known_ = &record_; }
        ~OpenRecord() { known_ = nullptr; }
        OpenRecord(const OpenRecord &) = delete;
        OpenRecord &operator=(const OpenRecord &) = delete;

    private:
        kesta::InnerlockRecord *&known_;
        kesta::InnerlockRecord record_;
    };

    void make_token()
    {
        struct timeval now {};
        gettimeofday(&now, nullptr);
        claim_.timeout = now.tv_sec % token_modulus + 1;
    }

    // One attempt, sweep included. True: the acquisition is over, with the result. A thread can't
    // be cancelled inside: a claim would stay behind.
    bool attempt(int r, int &result)
    {
        kesta::CancelOff off;
        const bool entered = record_->enter();
        const bool over = entered ? claim(result) : look(result) == Looked::failed;
        if (!over) {
            trace_retry(r);
            sweep_stale_slots(entered);
        }
        if (entered && !over) {
            renew_token_if_late();
            record_->leave();  // where it is over, run() closes the record
        }
        return over;
    }

    enum class Looked { free, locked, failed };

    // Failed: the acquisition is over, with the result.
    Looked look(int &result)
    {
        const int rtn = kestal_lockcheck_innerlock(kesta::own_controller(), slots_.data(), nullptr, nullptr);
        if (rtn == KESTA_OK || rtn == KESTA_ERR_INNERLOCK_LOCKED) {
            return rtn == KESTA_OK ? Looked::free : Looked::locked;
        }
        TRACE(1, "[kestal_cntl_innerlock] kestal_lockcheck_innerlock Error. rtn=%d", rtn);
        result = KESTA_ERR;
        return Looked::failed;
    }

    // A process that was stopped in its attempt may have been passed by: what it saw then is not to
    // be acted on. Whoever is late writes nothing, and looks anew in the next attempt; a claim of
    // its own that stands is left to the sweep, like one that could not be confirmed.
    bool claim(int &result)
    {
        const Looked looked = look(result);
        if (looked != Looked::free) {
            return looked == Looked::failed;
        }
        if (record_->late()) {
            return false;
        }
        const int rtn = write_slot(own_block_, claim_);
        if (rtn != KESTA_OK) {
            TRACE(1, "[kestal_cntl_innerlock] InnerLock Set Failed. rtn=%d", rtn);
            result = KESTA_ERR_INNERLOCK_WRITE;
            return true;
        }
        return confirm(result);
    }

    bool confirm(int &result)
    {
        int rtnstatus = 0;
        int rtn = kestal_lockcheck_innerlock(kesta::own_controller(), slots_.data(), &claim_, &rtnstatus);
        if (record_->late()) {
            return false;  // the claim may have been cleared, and another one made and given back
        }
        if (rtn >= KESTA_OK) {
            TRACE(5, "[kestal_cntl_innerlock] InnerLock Control Success End.");
            result = KESTA_OK;
            return true;
        }
        TRACE(3, "[kestal_cntl_innerlock] InnerLock Control Check Error.(rtn=%d, rtnstatus=%d)", rtn, rtnstatus);
        if (rtn != KESTA_ERR_INNERLOCK_LOCKED || rtnstatus == own_slot_taken_over) {
            return false;  // the own slot is left to its new owner
        }
        return withdraw(result);
    }

    // Two controllers claimed together: both withdraw, and retry after different times.
    bool withdraw(int &result)
    {
        TRACE(5, "[kestal_cntl_innerlock] InnerLock Reset");
        if (record_->late()) {
            return false;
        }
        const int rtn = write_slot(own_block_, KESTA_INNERLOCK_BUF{});
        if (rtn != KESTA_OK) {
            TRACE(1, "[kestal_cntl_innerlock] InnerLock Reset Failed.rtn=%d", rtn);
            result = KESTA_ERR_INNERLOCK_WRITE;
            return true;
        }
        return false;
    }

    // Others may have seen the token for so long that they would clear a new claim with it at once.
    void renew_token_if_late()
    {
        if (record_->late()) {
            make_token();
        }
    }

    static void trace_retry(int r) { TRACE(4, "[kestal_cntl_innerlock] lock retry...(%d)", r - 1); }

    // Over the image read last, the own slot included. Without the record the slots are observed
    // only: their time runs.
    void sweep_stale_slots(bool entered)
    {
        for (int i = 0; i < KESTA_CONTROLLERS; ++i) {
            const KESTA_INNERLOCK_BUF &slot = slots_[static_cast<unsigned>(i)];
            if (slot.status == slot_free ||
                kestal_compare_innerlock_timeout(i, static_cast<int>(slot.timeout), observations_.data()) != stale ||
                !entered || record_->late()) {
                continue;
            }
            TRACE(2, "[kestal_cntl_innerlock] InnerLock Irrigal Unlocked(%d)", i);
            const int rtn = kestal_reset_mycnt_innerlock_main(i, clear_given_slot);
            if (rtn != KESTA_OK) {
                TRACE(2, "[kestal_cntl_innerlock] InnerLock Irrival Unlocked Error.(rtn=%d)", rtn);
            }
        }
    }

    const int own_block_;
    const unsigned back_off_;
    kesta::InnerlockRecord *record_ = nullptr;
    KESTA_INNERLOCK_BUF claim_{};  // one token for all attempts of the call, unless one was late
    Slots slots_{};
    Observations observations_{};
};

bool blocks(const KESTA_INNERLOCK_BUF &slot, bool own_slot, const KESTA_INNERLOCK_BUF *own)
{
    if (slot.status == slot_free) {
        return false;  // also an own slot that somebody cleared in the meantime: on purpose
    }
    return !own || !own_slot || slot.timeout != own->timeout;
}

}  // namespace

int kestal_cntl_innerlock(int cntno)
{
    const int own = kesta::own_controller();
    TRACE(5, "[kestal_cntl_innerlock] InnerLock Control Start.(cntno=%d/mycntno=%d)", cntno, own);
    if (!is_controller(cntno)) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_cntl_innerlock] InnerLock Control Error.(cntno=%d)", cntno);
        return KESTA_ERR_ARGUMENT;
    }
    int own_block = 0;
    const int rtn = kestal_get_block_id(KESTA_IDTYPE_INNERLOCK, own, &own_block);
    if (rtn != KESTA_OK) {
        TRACE(1, "[kestal_cntl_innerlock] Get Block ID(ID TYPE=INNERLOCK) Error. rtn=%d", rtn);
        return KESTA_ERR;
    }
    return Acquisition(cntno, own_block).run();
}

int kestal_reset_mycnt_innerlock_main(int cntno, int flag)
{
    TRACE(5, "[kestal_reset_mycnt_innerlock] InnerLock Reset Start.(cntno=%d)", cntno);
    if (!is_controller(cntno)) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_reset_mycnt_innerlock] InnerLock Reset Error.(cntno=%d)", cntno);
        return KESTA_ERR_ARGUMENT;
    }
    const int slot = flag == clear_given_slot ? cntno : kesta::own_controller();
    int block_id = 0;
    int rtn = kestal_get_block_id(KESTA_IDTYPE_INNERLOCK, slot, &block_id);
    if (rtn != KESTA_OK) {
        TRACE(1, "[kestal_reset_mycnt_innerlock] Get Block ID(ID TYPE=INNERLOCK) Error. rtn=%d", rtn);
        return KESTA_ERR;
    }
    rtn = write_slot(block_id, KESTA_INNERLOCK_BUF{});
    if (rtn != KESTA_OK) {
        TRACE(1, "[kestal_reset_mycnt_innerlock] InnerLock Reset Failed.rtn=%d", rtn);
        return KESTA_ERR_INNERLOCK_WRITE;
    }
    TRACE(5, "[kestal_reset_mycnt_innerlock] InnerLock Reset End.");
    return KESTA_OK;
}

int kestal_lockcheck_innerlock(int cntno, void *slots_out, KESTA_INNERLOCK_BUF *own, int *rtnstatus)
{
    TRACE(5, "[lockcheck_innerlock] InnerLock Look Start.(cntno=%d)", cntno);
    if (!is_controller(cntno)) {
        FAILURE(ARGUMENT, 0, 1, "[lockcheck_innerlock] InnerLock Look Error(cntno=%d) .", cntno);
        return KESTA_ERR_ARGUMENT;
    }
    Slots slots{};
    const int rtn =
        kestal_non_volatile_rw_func(KESTA_BLOCK_INNERLOCK_CNT0, KESTA_BLOCK_READ, slots.data(), sizeof(slots), nullptr);
    if (rtn != KESTA_OK) {
        TRACE(1, "[lockcheck_innerlock] InnerLock Look Read Error.rtn=%d", rtn);
        return KESTA_ERR_INNERLOCK_READ;
    }
    if (slots_out) {
        memcpy(slots_out, slots.data(), sizeof(slots));
    }
    if (rtnstatus) {
        *rtnstatus = 0;
    }
    for (int i = 0; i < KESTA_CONTROLLERS; ++i) {
        const bool own_slot = i == cntno;
        if (!blocks(slots[static_cast<unsigned>(i)], own_slot, own)) {
            continue;
        }
        if (own && own_slot && rtnstatus) {
            *rtnstatus = own_slot_taken_over;
        }
        TRACE(4, "[lockcheck_innerlock] InnerLock Look Error. LockedNo=%d", i);
        return KESTA_ERR_INNERLOCK_LOCKED;
    }
    TRACE(5, "[lockcheck_innerlock] InnerLock Look End.");
    return KESTA_OK;
}

int kestal_compare_innerlock_timeout(int cntno, int value, KESTAL_LOCKBUFFER_STRUCT *buf)
{
    if (!is_controller(cntno) || !buf) {
        FAILURE(ARGUMENT, 0, 1, "[compare_innerlock_timeout] Argument Error.(cntno=%d)", cntno);
        return KESTA_ERR_ARGUMENT;
    }
    KESTAL_LOCKBUFFER_STRUCT &seen = buf[cntno];
    const clock_t now = kesta::process_seconds();
    const kesta::Observed observed = kesta::observe(seen, value, now, stale_after_seconds);
    if (observed == kesta::Observed::anew) {
        TRACE(5, "[compare_innerlock_timeout] inner_lock(cnt%d) set value = %d, clock= %d", cntno, seen.value,
              static_cast<int>(seen.clock));
        return not_stale;
    }
    TRACE(5, "[compare_innerlock_timeout] same inner_lock value = %d", value);
    if (observed == kesta::Observed::same) {
        return not_stale;
    }
    TRACE(3, "[compare_innerlock_timeout] inner_lock timeout (cntno:%d) (current_clock:%d, clock:%d)", cntno,
          static_cast<int>(now), static_cast<int>(seen.clock));
    return stale;
}
