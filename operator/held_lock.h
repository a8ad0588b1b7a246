// Locks that a command of kestactl holds while it works, and lets go of on every way out.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "held_command.h"
#include "lock_state.h"

namespace engine {

// What to take.
struct LockRequest {
    int type = KESTA_LOCK_TYPE1;
    std::string group;  // empty: none is named
    int wait = 0;       // seconds
};

// Tries again until this controller's command lock is had or the time is over; progress goes to stderr.
// Returns its identifier. Throws Failure.
std::string take_command_lock(const LockRequest &request, int own, const HeldSignals &signals);

// Throws Failure.
void release_command_lock(int controller, const std::string &identifier);

// How long somebody waits for command locks, and what is said when that is over.
struct LockWait {
    int seconds;
    const char *refusal;
};

struct LockInTheWay {
    int controller;  // -1: not known
    LockState state;
};

// Looks once a second until nothing is in the way, and returns after how many seconds that was; progress goes to stderr.
// Throws Failure: the time is over, or a signal came.
int wait_in_turn(const LockWait &wait, const HeldSignals &signals,
                 const std::function<std::optional<LockInTheWay>()> &look);

// A signal came while nothing was held. Throws Failure.
[[noreturn]] void interrupted(int signal);

class HeldCommandLock {
public:
    HeldCommandLock(int controller, std::string identifier);
    ~HeldCommandLock();
    HeldCommandLock(const HeldCommandLock &) = delete;
    HeldCommandLock &operator=(const HeldCommandLock &) = delete;

    const std::string &identifier() const { return identifier_; }

    // Whether it is still ours: somebody may have cleared it meanwhile. Throws Failure if not.
    void require_ours() const;

    // Throws Failure.
    void release();

private:
    int controller_;
    std::string identifier_;
    bool held_ = true;
};

// The process that holds a local lock, as "process 12 (backup)"; empty if nobody or unknown.
std::string local_holder(const std::string &name);
[[noreturn]] void refuse_local(const std::string &name, const std::string &holder);

class HeldLocalLock {
public:
    explicit HeldLocalLock(const std::string &name);  // throws Failure
    ~HeldLocalLock();
    HeldLocalLock(const HeldLocalLock &) = delete;
    HeldLocalLock &operator=(const HeldLocalLock &) = delete;

    // Throws Failure.
    void release();

private:
    std::string name_;
    int fd_ = -1;
};

}  // namespace engine
