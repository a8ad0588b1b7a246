#include "held_lock.h"

#include <fcntl.h>
#include <kesta/kesta.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <iostream>

#include "appliance_state.h"
#include "failure.h"
#include "holder_note.h"
#include "kesta/paths.h"
#include "names.h"
#include "printable.h"
#include "utc.h"

namespace engine {
namespace {

constexpr int new_lock = 0;
constexpr int release_fully = 0;
constexpr int seconds_between_tries = 1;
constexpr int seconds_between_reports = 10;

// Two processes of one controller write the same slot, and neither would meet the other: kestactl
// takes one lock at a time on a controller. Where the file can't be had it goes on without.
class OneTaker {
public:
    OneTaker() : fd_(open(path().c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600))
    {
        if (fd_ >= 0) {
            // Held for one attempt; without it the attempt is made all the same.
            [[maybe_unused]] const int held = lockf(fd_, F_LOCK, 0);
        }
    }
    ~OneTaker()
    {
        if (fd_ >= 0) {
            (void)close(fd_);  // nothing was written; this lets go
        }
    }
    OneTaker(const OneTaker &) = delete;
    OneTaker &operator=(const OneTaker &) = delete;

private:
    static std::string path() { return KESTA_MERGE_CACHE ".kestactl"; }

    int fd_;
};

int try_to_take(const LockRequest &request, int own, char *identifier, int &met)
{
    const OneTaker alone;
    std::string group = request.group;
    return kestal_global_command_lock_func(own, request.type, identifier, group.empty() ? nullptr : group.data(),
                                           new_lock, &met);
}

// Says on stderr for whom somebody waits.
void report_waiting(const LockState &state, int controller, int left)
{
    std::string text = controller_name(controller) + " is taking one too";
    for (const CommandLock &lock : state.held) {
        if (lock.controller == controller) {
            text = describe(lock, state.group);
        }
    }
    std::cerr << "waiting for the command lock until " << utc(time(nullptr) + left) << ", " << left
              << " s left: " << printable(text) << std::endl;
}

}  // namespace

int wait_in_turn(const LockWait &wait, const HeldSignals &signals,
                 const std::function<std::optional<LockInTheWay>()> &look)
{
    int reported = -1;
    for (int waited = 0;; waited += seconds_between_tries) {
        const std::optional<LockInTheWay> met = look();
        if (!met) {
            return waited;
        }
        if (waited >= wait.seconds) {
            refuse_locked(wait.refusal, met->state, met->controller);
        }
        if (met->controller != reported || waited % seconds_between_reports == 0) {
            report_waiting(met->state, met->controller, wait.seconds - waited);
            reported = met->controller;
        }
        if (const int signal = signals.wait(seconds_between_tries); signal != 0) {
            interrupted(signal);
        }
    }
}

std::string take_command_lock(const LockRequest &request, int own, const HeldSignals &signals)
{
    std::array<char, KESTA_LOCK_IDENTIFIER_SIZE> identifier{};
    (void)wait_in_turn({request.wait, "The command lock can't be had"}, signals, [&]() -> std::optional<LockInTheWay> {
        int met = -1;
        const int result = try_to_take(request, own, identifier.data(), met);
        if (result != KESTA_OK && result != KESTA_ERR_LOCKED) {
            fail_call("lock-failed",
                      "The command lock of " + controller_name(own) + " could not be taken (result " +
                          std::to_string(result) + ").",
                      "Look at --trace 1, and with 'kestactl lock check' whether it was left behind.");
        }
        return result == KESTA_OK ? std::nullopt : std::optional(LockInTheWay{met, read_lock_state()});
    });
    return identifier.data();
}

[[noreturn]] void interrupted(int signal)
{
    throw Failure(static_cast<Exit>(ended_by_signal + signal), "interrupted",
                  std::string("Interrupted (") + strsignal(signal) + ") before the lock was had.", "Nothing is held.");
}

void release_command_lock(int controller, const std::string &identifier)
{
    const int result = kestal_global_command_unlock_func(controller, identifier.c_str(), release_fully);
    if (result == KESTA_ERR_LOCK_IDENTIFIER) {
        throw Failure(Exit::no, "other-identifier",
                      "The lock of " + controller_name(controller) + " carries another identifier than " + identifier +
                          "; it was left alone.",
                      "Somebody cleared the lock and took one: see 'kestactl lock check'.");
    }
    if (result != KESTA_OK) {
        fail_call("unlock-failed", "The lock of " + controller_name(controller) + " was not released.",
                  "Release it again: kestactl lock release " + identifier + " --controller " +
                      controller_name(controller));
    }
}

HeldCommandLock::HeldCommandLock(int controller, std::string identifier)
    : controller_(controller), identifier_(std::move(identifier))
{
    note_holder(controller_, identifier_.c_str());
}

HeldCommandLock::~HeldCommandLock()
{
    if (held_) {
        forget_holder();  // first: the next holder's note stays
        (void)kestal_global_command_unlock_func(controller_, identifier_.c_str(),
                                                release_fully);  // traced; an error is under way
    }
}

void HeldCommandLock::require_ours() const
{
    for (const CommandLock &lock : read_lock_state().held) {
        if (lock.controller == controller_ && !lock.suspended() && std::to_string(lock.identifier) == identifier_) {
            return;
        }
    }
    throw Failure(Exit::locked, "lock-lost",
                  "The command lock of " + controller_name(controller_) +
                      " is not ours any more: somebody has cleared it. Nothing more was written.",
                  "See who did with 'kestactl lock check', then run the command again.");
}

void HeldCommandLock::release()
{
    held_ = false;
    forget_holder();  // first: the next holder's note stays
    release_command_lock(controller_, identifier_);
}

// The process that holds the record lock, as "process 12 (backup)"; empty if nobody or unknown.
std::string local_holder(const std::string &name)
{
    const int fd = open((KESTA_MERGE_CACHE + name).c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    const bool asked = fd >= 0 && fcntl(fd, F_GETLK, &lock) == 0;
    (void)close(fd);  // nothing was written; this process holds no lock on it
    if (!asked || lock.l_type == F_UNLCK) {
        return "";
    }
    std::ifstream file("/proc/" + std::to_string(lock.l_pid) + "/comm");
    std::string program;
    std::getline(file, program);
    return "process " + std::to_string(lock.l_pid) + (program.empty() ? std::string() : " (" + program + ")");
}

[[noreturn]] void refuse_local(const std::string &name, const std::string &holder)
{
    throw Failure(Exit::locked, "locked", "The local lock " + name + " can't be had: " + holder + " holds it.",
                  "It is free as soon as that process ends.");
}

HeldLocalLock::HeldLocalLock(const std::string &name) : name_(name)
{
    if (kestal_file_command_lock(&fd_, name_.data()) == KESTA_OK) {
        return;
    }
    if (const std::string holder = local_holder(name); !holder.empty()) {
        refuse_local(name, holder);
    }
    throw Failure(Exit::platform, "lock-failed", "The local lock " + name + " could not be taken.",
                  "Check that " KESTA_MERGE_CACHE " is there and can be written.");
}

HeldLocalLock::~HeldLocalLock()
{
    if (fd_ >= 0) {
        (void)kestal_file_command_unlock(&fd_);  // traced; an error is under way
    }
}

void HeldLocalLock::release()
{
    int fd = fd_;
    fd_ = -1;
    if (kestal_file_command_unlock(&fd) != KESTA_OK) {
        fail_call("unlock-failed", "The local lock " + name_ + " was not given back in order.",
                  "It is free all the same when this program ends.");
    }
}

}  // namespace engine
