#include "lock_rule.h"

#include <algorithm>

#include "appliance_state.h"
#include "failure.h"
#include "held_lock.h"
#include "lock_state.h"
#include "names.h"

namespace engine {
namespace {

constexpr int seconds_between_looks = 1;
constexpr int seconds_between_lines = 10;

// The first controller in the way; -1 if there is none.
int in_the_way(const LockState &state, int own, const std::vector<int> &ignored)
{
    for (const CommandLock &lock : state.held) {
        const bool minded = std::find(ignored.begin(), ignored.end(), lock.controller) == ignored.end();
        if (lock.controller != own && !lock.suspended() && minded) {
            return lock.controller;
        }
    }
    return -1;
}

// What can't be looked at is in nobody's way: the change itself then says what failed.
LockState locks_now()
{
    try {
        return read_lock_state();
    } catch (const Failure &) {
        return {};
    }
}

}  // namespace

void honour_command_lock(const LockRule &rule)
{
    const int own = learn_own_number();
    std::vector<int> ignored;
    for (const std::string &name : rule.ignored) {
        ignored.push_back(parse_controller(name));
    }
    LockState state = locks_now();
    int holder = in_the_way(state, own, ignored);
    if (holder < 0) {
        return;
    }
    const HeldSignals signals;
    for (int waited = 0; holder >= 0; waited += seconds_between_looks) {
        if (waited >= rule.wait) {
            refuse_locked("Another controller is at work", state, holder);
        }
        if (waited % seconds_between_lines == 0) {
            report_waiting(state, holder, rule.wait - waited);
        }
        if (const int signal = signals.wait(seconds_between_looks); signal != 0) {
            interrupted(signal);
        }
        state = locks_now();
        holder = in_the_way(state, own, ignored);
    }
}

}  // namespace engine
