#include "lock_rule.h"

#include <kesta/kesta.h>

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

// Locks that can't be read may be held, by any controller that is minded.
LockState locks_now(int own, const std::vector<int> &ignored)
{
    try {
        return read_lock_state();
    } catch (const Failure &failure) {
        std::string minded;
        for (int i = 0; i < KESTA_CONTROLLERS; ++i) {
            if (i != own && std::find(ignored.begin(), ignored.end(), i) == ignored.end()) {
                minded += " --ignore-lock " + controller_name(i);
            }
        }
        if (minded.empty()) {
            return {};
        }
        throw Failure(failure.exit(), failure.code(), failure.what() + std::string(" Another controller may hold one."),
                      "Nothing was changed. If nobody is at work there, give" + minded + ". " + failure.hint());
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
    LockState state = locks_now(own, ignored);
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
        state = locks_now(own, ignored);
        holder = in_the_way(state, own, ignored);
    }
}

}  // namespace engine
