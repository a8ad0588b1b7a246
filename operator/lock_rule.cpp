#include "lock_rule.h"

#include <kesta/kesta.h>

#include <algorithm>
#include <utility>

#include "appliance_state.h"
#include "failure.h"
#include "held_lock.h"
#include "lock_state.h"
#include "names.h"

namespace engine {
namespace {

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
    const auto look = [&]() -> std::optional<LockInTheWay> {
        LockState state = locks_now(own, ignored);
        const int holder = in_the_way(state, own, ignored);
        return holder < 0 ? std::nullopt : std::optional(LockInTheWay{holder, std::move(state)});
    };
    if (look()) {
        const HeldSignals signals;
        (void)wait_in_turn({rule.wait, "Another controller is at work"}, signals, look);
    }
}

}  // namespace engine
