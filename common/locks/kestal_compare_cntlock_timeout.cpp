#include <pthread.h>

#include <array>

#include "controller_state.h"
#include "controllers.h"
#include "kesta/command_lock.h"
#include "kesta/inner_lock.h"
#include "observation.h"
#include "ownership.h"
#include "process_clock.h"
#include "trace.h"

using kesta::is_controller;
using kesta::lockbuffer_mutex;

namespace {

// What this process has seen in each controller's slot.
KESTAL_LOCKBUFFER_STRUCT g_cntlockinfo[KESTA_CONTROLLERS];

constexpr clock_t stale_after_seconds = 600;
constexpr int timed_out = 1;
constexpr int not_timed_out = 0;

// The body of the comparison, under the mutex.
int compare(int cnt_num, int value)
{
    KESTAL_LOCKBUFFER_STRUCT &seen = g_cntlockinfo[cnt_num];
    TRACE(5, "[compare_cntlock_timeout] value = %d save value = %d", value, seen.value);
    const clock_t now = kesta::process_seconds();
    const kesta::Observed observed = kesta::observe(seen, value, now, stale_after_seconds);
    if (observed == kesta::Observed::anew) {
        TRACE(4, "[compare_cntlock_timeout] command_lock(cnt%d) set value = %d clock = %d", cnt_num, seen.value,
              static_cast<int>(seen.clock));
        return not_timed_out;
    }
    TRACE(5, "[compare_cntlock_timeout] same command_lock value = %d", value);
    if (observed == kesta::Observed::same) {
        return not_timed_out;
    }
    TRACE(3, "[compare_cntlock_timeout] command_lock timeout (cntno:%d) (curclock:%d, clock:%d)", cnt_num,
          static_cast<int>(now), static_cast<int>(seen.clock));
    return timed_out;
}

}  // namespace

// Cancellation is off where the mutex is held: a trace may be a cancellation point.
int kestal_compare_cntlock_timeout(int cnt_num, int value)
{
    if (!is_controller(cnt_num)) {
        FAILURE(ARGUMENT, 0, 1, "[compare_cntlock_timeout] Argument Error.(cntno=%d)", cnt_num);
        return KESTA_ERR_ARGUMENT;
    }
    const kesta::CancelOff off;
    const kesta::MutexGuard guard(lockbuffer_mutex);
    return compare(cnt_num, value);
}

int kestal_reset_cntlock_timeout(int cnt_num)
{
    if (!is_controller(cnt_num)) {
        return KESTA_OK;  // nothing is recorded for it
    }
    const kesta::CancelOff off;
    const kesta::MutexGuard guard(lockbuffer_mutex);
    KESTAL_LOCKBUFFER_STRUCT &seen = g_cntlockinfo[cnt_num];
    TRACE(5, "[compare_lockinfo_timeout] inner_lock(cnt%d) reset(%d, %d)", cnt_num, seen.value,
          static_cast<int>(seen.clock));
    seen = {};
    return KESTA_OK;
}

void kestal_allreset_lockinfo(void)
{
    const kesta::MutexGuard guard(lockbuffer_mutex);
    for (KESTAL_LOCKBUFFER_STRUCT &seen : g_cntlockinfo) {
        seen = {};
    }
}
