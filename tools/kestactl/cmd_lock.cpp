// kestactl lock: who holds the command locks, waiting for them, and what becomes of one that was taken.
#include <kesta/kesta.h>

#include <array>
#include <charconv>
#include <memory>

#include "appliance_state.h"
#include "command.h"
#include "held_command.h"
#include "held_lock.h"
#include "inner_lock_holders.h"
#include "lock_options.h"
#include "lock_state.h"
#include "names.h"
#include "render.h"

namespace kestactl {
namespace {

constexpr int take_again = 1;
constexpr int release_fully = 0;
constexpr int suspend = 1;
constexpr int all_controllers = -1;

struct LockOptions {
    int type = KESTA_LOCK_TYPE1;
    std::string group;
    std::string identifier;
    std::string controller;
    int wait = 0;
    bool force = false;
};

int chosen_controller(const LockOptions &options)
{
    if (options.controller.empty()) {
        return learn_own_number();
    }
    const int controller = parse_controller(options.controller);
    (void)learn_own_number();  // the inner lock needs it
    return controller;
}

void check_identifier(const std::string &identifier)
{
    std::int64_t number = 0;
    const char *end = identifier.data() + identifier.size();
    const auto [stop, error] = std::from_chars(identifier.data(), end, number);
    if (error != std::errc() || stop != end || number < 0) {
        throw Failure(Exit::usage, "bad-identifier", "'" + identifier + "' is no lock identifier.",
                      "An identifier is a number: 'kestactl lock check' shows it.");
    }
}

// The lock of a controller, which must carry the identifier.
CommandLock find_lock(const LockState &state, int controller, const std::string &identifier)
{
    for (const CommandLock &lock : state.held) {
        if (lock.controller != controller) {
            continue;
        }
        if (std::to_string(lock.identifier) != identifier) {
            throw Failure(Exit::no, "other-identifier",
                          "The lock carries another identifier: " + describe(lock, state.group) + ".",
                          "Give its identifier, or clear it: " + clearing_command(lock));
        }
        return lock;
    }
    throw Failure(Exit::no, "not-held", controller_name(controller) + " holds no lock.",
                  "'kestactl lock check' shows all locks.");
}

// -------------------------------------------------------------- release, suspend, resume, convert

Plan plan_release(const LockOptions &options)
{
    require_writable();
    const int controller = chosen_controller(options);
    if (!options.force) {
        check_identifier(options.identifier);
        (void)find_lock(read_lock_state(), controller, options.identifier);
    }
    const std::string identifier = options.identifier;
    const bool force = options.force;
    Plan plan;
    plan.json = {{"controller", controller}};
    plan.steps.push_back(
        {"release the lock of " + controller_name(controller),
         {place_of_block(KESTA_BLOCK_LOCK_CNT0 + controller), place_of_block(KESTA_BLOCK_GROUP)},
         [=] {
             if (!force) {
                 release_command_lock(controller, identifier);
             } else if (kestal_global_command_unlock_func(controller, nullptr, release_fully) != KESTA_OK) {
                 fail_call("unlock-failed", "The lock of " + controller_name(controller) + " was not released.",
                           "Look at --trace 1.");
             }
         }});
    return plan;
}

Plan plan_suspend(const LockOptions &options)
{
    require_writable();
    const int own = learn_own_number();
    check_identifier(options.identifier);
    const CommandLock lock = find_lock(read_lock_state(), own, options.identifier);
    if (lock.suspended()) {
        throw Failure(Exit::no, "suspended-already", "The lock of " + controller_name(own) + " is suspended.",
                      "Take it again: kestactl lock resume " + options.identifier);
    }
    const std::string identifier = options.identifier;
    Plan plan;
    plan.json = {{"controller", own}, {"identifier", identifier}};
    plan.steps.push_back({"suspend the lock of " + controller_name(own) + "; its identifier stays reserved",
                          {place_of_block(KESTA_BLOCK_LOCK_CNT0 + own), place_of_block(KESTA_BLOCK_GROUP)},
                          [=] {
                              if (kestal_global_command_unlock_func(own, identifier.c_str(), suspend) != KESTA_OK) {
                                  fail_call("suspend-failed",
                                            "The lock of " + controller_name(own) + " was not suspended.",
                                            "Look at --trace 1.");
                              }
                          }});
    return plan;
}

void resume(const LockOptions &options, int own)
{
    std::array<char, KESTA_LOCK_IDENTIFIER_SIZE> identifier{};
    std::string group = options.group;
    options.identifier.copy(identifier.data(), identifier.size() - 1);
    int met = -1;
    const int result = kestal_global_command_lock_func(own, options.type, identifier.data(),
                                                       group.empty() ? nullptr : group.data(), take_again, &met);
    if (result == KESTA_ERR_LOCKED) {
        refuse_locked("The lock of " + controller_name(own) + " can't be taken again", read_lock_state(), met);
    }
    if (result != KESTA_OK) {
        fail_call("resume-failed", "The lock of " + controller_name(own) + " was not taken again.",
                  "Look at --trace 1.");
    }
}

Plan plan_resume(const LockOptions &options)
{
    if (!options.group.empty()) {
        check_group(options.group);
    }
    require_writable();
    const int own = learn_own_number();
    check_identifier(options.identifier);
    const LockState state = read_lock_state();
    const CommandLock lock = find_lock(state, own, options.identifier);
    if (!lock.suspended()) {
        throw Failure(Exit::no, "not-suspended",
                      "The lock of " + controller_name(own) + " is not suspended: " + describe(lock, state.group) + ".",
                      "There is nothing to resume.");
    }
    for (const CommandLock &other : state.held) {
        if (!other.suspended()) {
            refuse_locked("The lock of " + controller_name(own) + " can't be taken again", state, other.controller);
        }
    }
    Plan plan;
    plan.json = {{"controller", own}, {"identifier", options.identifier}};
    plan.steps.push_back({"take the suspended lock of " + controller_name(own) + " again",
                          {place_of_block(KESTA_BLOCK_LOCK_CNT0 + own)},
                          [=] {
                              resume(options, own);
                          }});
    return plan;
}

Plan plan_convert(const LockOptions &options)
{
    require_writable();
    const int own = learn_own_number();
    check_identifier(options.identifier);
    const LockState state = read_lock_state();
    const CommandLock lock = find_lock(state, own, options.identifier);
    if (lock.status != KESTA_LOCK_STATUS_TYPE1) {
        throw Failure(Exit::no, "not-type-1",
                      "Only a type-1 lock becomes a running backup: " + describe(lock, state.group) + ".",
                      "Take one with 'kestactl lock take --type 1'.");
    }
    for (const CommandLock &other : state.held) {
        if (other.controller != own && !other.suspended()) {
            refuse_locked("The lock of " + controller_name(own) + " can't be converted", state, other.controller);
        }
    }
    const std::string identifier = options.identifier;
    Plan plan;
    plan.json = {{"controller", own}, {"identifier", identifier}};
    plan.steps.push_back({"convert the lock of " + controller_name(own) + " to a running backup, and renew it",
                          {place_of_block(KESTA_BLOCK_LOCK_CNT0 + own)},
                          [=] {
                              if (kestal_backup_lock(identifier.c_str()) != KESTA_OK) {
                                  fail_call("convert-failed",
                                            "The lock of " + controller_name(own) + " was not converted.",
                                            "See 'kestactl lock check', and --trace 1.");
                              }
                          }});
    return plan;
}

// ---------------------------------------------------------------------------------- check, wait

Result check()
{
    const LockState state = read_lock_state();
    const std::string inner = inner_lock_text();
    Result result;
    result.json["locks"] = Json::array();
    for (const CommandLock &lock : state.held) {
        result.text += describe(lock, state.group) + "\n    clear it with: " + clearing_command(lock) + "\n";
        result.json["locks"].push_back(to_json(lock, state.group));
    }
    if (state.held.empty()) {
        result.text = "No command lock is held.\n";
    } else {
        result.exit = Exit::no;
    }
    if (!inner.empty()) {
        result.text += "The inner lock is held by " + inner +
                       "; a dead holder's is cleared by the next waiter after 30 seconds.\n";
    }
    result.json["inner_lock"] = inner;
    return result;
}

Result wait_for_free(const LockOptions &options)
{
    (void)learn_own_number();
    const HeldSignals signals;
    Result result;
    result.text = "No command lock is held.\n";
    result.json["waited"] =
        wait_in_turn({options.wait, "A command lock is still held"}, signals, []() -> std::optional<LockInTheWay> {
            int holder = -1;
            const int found = kestal_global_command_lock_check(all_controllers, nullptr, &holder);
            if (found < 0 && holder < 0) {
                fail_call("check-failed", "The command locks could not be looked at.", "Look at --trace 1.");
            }
            return holder < 0 ? std::nullopt : std::optional(LockInTheWay{holder, read_lock_state()});
        });
    return result;
}

Command add_planned(const Command &lock, Globals &globals, Action &action, const char *verb, const char *description,
                    const std::shared_ptr<LockOptions> &options, Plan (*planner)(const LockOptions &))
{
    Command command = lock.add_subcommand(verb, description);
    add_dry_run(command, globals);
    command.callback([&action, options, planner] {
        action = [options, planner](const Globals &given) {
            return carry_out(planner(*options), given);
        };
    });
    return command;
}

void add_identifier(const Command &command, const std::shared_ptr<LockOptions> &options)
{
    command.add_option("IDENTIFIER", options->identifier, "What 'lock take' printed").required();
}

void add_release(const Command &lock, Globals &globals, Action &action, const std::shared_ptr<LockOptions> &options)
{
    Command command = add_planned(lock, globals, action, "release", "Release a command lock", options, plan_release);
    const Option identifier = command.add_option("IDENTIFIER", options->identifier, "What 'lock take' printed");
    const Option force =
        command.add_flag("--force", options->force, "Release whatever is there; for a lock whose holder is dead");
    force.excludes(identifier);
    command.add_option("--controller", options->controller, "Whose lock; else this controller's").option_text("CNTn");
    command.callback([&action, options] {
        if (options->identifier.empty() && !options->force) {
            require("IDENTIFIER or --force");
        }
        action = [options](const Globals &given) {
            return carry_out(plan_release(*options), given);
        };
    });
    add_examples(command,
                 "  kestactl lock release 1795240000\n"
                 "  kestactl lock release 1795240000 --controller CNT2");
}

void add_check_and_wait(const Command &lock, Globals &globals, Action &action,
                        const std::shared_ptr<LockOptions> &options)
{
    const Command check_command =
        lock.add_subcommand("check",
                            "Show who holds which command lock, without taking any; exit code 1 if one is held");
    add_watch(check_command, globals);
    check_command.callback([&action] {
        action = [](const Globals &) {
            return check();
        };
    });
    add_examples(check_command,
                 "  kestactl lock check\n"
                 "  kestactl --json lock check");
    const Command wait =
        lock.add_subcommand("wait", "Wait until no command lock is held; clears one seen unchanged for 10 minutes");
    add_lock_wait_option(wait, options->wait);
    wait.callback([&action, options] {
        action = [options](const Globals &) {
            return wait_for_free(*options);
        };
    });
    add_examples(wait, "  kestactl lock wait --wait 700");
}

}  // namespace

void add_lock(const Command &app, Globals &globals, Action &action)
{
    const Command lock = app.add_subcommand("lock", "Command locks between controllers, and local locks");
    lock.require_subcommand();
    auto options = std::make_shared<LockOptions>();
    add_lock_take(lock, globals, action);
    add_release(lock, globals, action, options);
    Command command = add_planned(lock, globals, action, "suspend",
                                  "Let others work for a while; the identifier stays reserved", options, plan_suspend);
    add_identifier(command, options);
    add_examples(command, "  kestactl lock suspend 1795240000");
    command = add_planned(lock, globals, action, "resume", "Take a suspended lock again", options, plan_resume);
    add_identifier(command, options);
    add_type_options(command, options->type, options->group);
    add_examples(command, "  kestactl lock resume 1795240000");
    command = add_planned(lock, globals, action, "convert", "Convert a type-1 lock to a running backup, and renew it",
                          options, plan_convert);
    add_identifier(command, options);
    add_examples(command, "  kestactl lock convert 1795240000");
    add_check_and_wait(lock, globals, action, options);
    add_lock_local(lock, globals, action);
    add_examples(lock,
                 "  kestactl lock check\n"
                 "  kestactl lock take --wait 60 -- kestactl copy cntbackup2backup\n"
                 "  kestactl lock release 1795240000 --controller CNT2\n"
                 "  kestactl lock local nightly -- /usr/local/sbin/nightly-backup");
}

}  // namespace kestactl
