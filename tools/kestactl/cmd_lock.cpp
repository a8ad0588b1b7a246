// kestactl lock: the command lock between controllers, and the local lock of one controller.
#include <errno.h>
#include <fcntl.h>
#include <kesta/kesta.h>
#include <string.h>
#include <time.h>
#include <unistd.h>
#include <climits>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iostream>
#include <memory>

#include "appliance_state.h"
#include "command.h"
#include "held_command.h"
#include "held_lock.h"
#include "inner_lock_holders.h"
#include "kesta/paths.h"
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
    std::string name;
    std::vector<std::string> command;
};

struct Taken {
    std::string identifier;
    CommandEnd end;
};

Exit exit_of(const CommandEnd &end) { return static_cast<Exit>(end.exit_code); }

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

// ---------------------------------------------------------------------------------------- take

// The controller in the way of a lock that somebody wants to take, or -1.
int in_the_way(const LockState &state, const LockOptions &options)
{
    for (const CommandLock &lock : state.held) {
        if (!lock.suspended() || options.type == KESTA_LOCK_TYPE1) {
            return lock.controller;
        }
    }
    return -1;
}

void take(const LockOptions &options, int own, const HeldSignals &signals, Taken &taken)
{
    taken.identifier = take_command_lock({options.type, options.group, options.wait}, own, signals);
    if (const int signal = signals.pending(); signal != 0) {
        release_command_lock(own, taken.identifier);
        interrupted(signal);
    }
    if (options.command.empty()) {
        return;
    }
    HeldCommandLock held(own, taken.identifier);
    taken.end = signals.run(options.command);
    held.release();
}

Plan plan_take(const LockOptions &options, const HeldSignals &signals, Taken &taken)
{
    if (!options.group.empty()) {
        check_group(options.group);
    }
    require_writable();
    const int own = learn_own_number();
    if (options.wait == 0) {
        const LockState state = read_lock_state();
        if (const int met = in_the_way(state, options); met >= 0) {
            refuse_locked("The command lock can't be had", state, met);
        }
    }
    std::vector<std::string> writes{"NV memory: block " + std::to_string(KESTA_BLOCK_LOCK_CNT0 + own)};
    if (!options.group.empty()) {
        writes.push_back("NV memory: block " + std::to_string(KESTA_BLOCK_GROUP));
    }
    std::string what = "take a type-" + std::to_string(options.type) + " lock of " + controller_name(own);
    if (!options.command.empty()) {
        what += ", run: " + joined(options.command) + ", and release it";
        writes.push_back("whatever the command writes");
    }
    Plan plan;
    plan.json = {{"controller", own}, {"type", options.type}};
    plan.steps.push_back({what, writes, [=, &signals, &taken] {
                              take(options, own, signals, taken);
                          }});
    return plan;
}

Result take_command(const LockOptions &options, const Globals &globals)
{
    // Until its identifier is written a lock is given back on every way out.
    const auto signals = std::make_shared<const HeldSignals>();
    Taken taken;
    Result result = carry_out(plan_take(options, *signals, taken), globals);
    if (globals.dry_run) {
        return result;
    }
    result.json["identifier"] = taken.identifier;
    if (options.command.empty()) {
        result.text = taken.identifier + "\n";
        const int own = result.json.at("controller").get<int>();
        result.unwritten = [signals, own, identifier = taken.identifier] {
            release_command_lock(own, identifier);
        };
        return result;
    }
    result.exit = exit_of(taken.end);
    result.text.clear();
    result.json["exit_code"] = taken.end.exit_code;
    return result;
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
         {"NV memory: block " + std::to_string(KESTA_BLOCK_LOCK_CNT0 + controller),
          "NV memory: block " + std::to_string(KESTA_BLOCK_GROUP)},
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
                          {"NV memory: block " + std::to_string(KESTA_BLOCK_LOCK_CNT0 + own),
                           "NV memory: block " + std::to_string(KESTA_BLOCK_GROUP)},
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
                          {"NV memory: block " + std::to_string(KESTA_BLOCK_LOCK_CNT0 + own)},
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
                          {"NV memory: block " + std::to_string(KESTA_BLOCK_LOCK_CNT0 + own)},
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

// ---------------------------------------------------------------------------------------- local

void check_local_name(const std::string &name)
{
    const bool plain = std::all_of(name.begin(), name.end(),
                                   [](unsigned char c) { return isalnum(c) || c == '.' || c == '_' || c == '-'; });
    constexpr std::size_t longest = 64;
    if (name.empty() || name[0] == '.' || name.size() > longest || !plain) {
        throw Failure(Exit::usage, "bad-name", "'" + name + "' can't be the name of a local lock.",
                      "A name has 1 to 64 letters, digits, '.', '_' or '-', and doesn't begin with "
                      "a dot.");
    }
}

void hold_local(const LockOptions &options, CommandEnd &end)
{
    const HeldSignals signals;
    HeldLocalLock lock(options.name);
    end = signals.run(options.command);
    lock.release();
}

Result local_command(const LockOptions &options, const Globals &globals)
{
    check_local_name(options.name);
    if (const std::string holder = local_holder(options.name); !holder.empty()) {
        refuse_local(options.name, holder);
    }
    CommandEnd end;
    Plan plan;
    plan.json = {{"name", options.name}, {"command", joined(options.command)}};
    plan.steps.push_back({"hold the local lock " + options.name + " and run: " + joined(options.command),
                          {KESTA_MERGE_CACHE + options.name, "whatever the command writes"},
                          [&] {
                              hold_local(options, end);
                          }});
    Result result = carry_out(plan, globals);
    if (!globals.dry_run) {
        result.exit = exit_of(end);
        result.text.clear();
        result.json["exit_code"] = end.exit_code;
    }
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

void add_type(const Command &command, const std::shared_ptr<LockOptions> &options)
{
    command
        .add_option("--type", options->type, "1 exclusive, 2 shared with others of type 2 taken together, 3 exclusive")
        .in_range(KESTA_LOCK_TYPE1, KESTA_LOCK_TYPE3)
        .option_text("1|2|3");
    command.add_option("--group", options->group, "Group to name as the one that is worked on");
}

void add_wait(const Command &command, const std::shared_ptr<LockOptions> &options)
{
    command.add_option("--wait", options->wait, "Seconds to wait for it; progress goes to stderr").in_range(0, INT_MAX);
}

void add_take(const Command &lock, Globals &globals, Action &action, const std::shared_ptr<LockOptions> &options)
{
    Command command =
        lock.add_subcommand("take",
                            "Take this controller's command lock and print its identifier; with a command, hold "
                            "it while that runs");
    add_type(command, options);
    add_wait(command, options);
    command.add_option("COMMAND", options->command,
                       "Put it behind --. Its exit code becomes kestactl's; the lock is released "
                       "however it ends");
    add_dry_run(command, globals);
    add_examples(command,
                 "  kestactl lock take --type 1 --group network\n"
                 "  kestactl lock take --wait 60 -- kestactl copy cntbackup2backup");
    command.callback([&action, options] {
        action = [options](const Globals &given) {
            return take_command(*options, given);
        };
    });
}

void add_local(const Command &lock, Globals &globals, Action &action, const std::shared_ptr<LockOptions> &options)
{
    Command command = lock.add_subcommand("local",
                                          "Run a command while holding a local lock of this controller; its exit code "
                                          "becomes kestactl's");
    command.add_option("NAME", options->name, "Name of the lock").required();
    command.add_option("COMMAND", options->command, "Put it behind --").required();
    add_dry_run(command, globals);
    add_examples(command, "  kestactl lock local nightly -- /usr/local/sbin/nightly-backup");
    command.callback([&action, options] {
        action = [options](const Globals &given) {
            return local_command(*options, given);
        };
    });
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
    add_wait(wait, options);
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
    add_take(lock, globals, action, options);
    add_release(lock, globals, action, options);
    Command command = add_planned(lock, globals, action, "suspend",
                                  "Let others work for a while; the identifier stays reserved", options, plan_suspend);
    add_identifier(command, options);
    add_examples(command, "  kestactl lock suspend 1795240000");
    command = add_planned(lock, globals, action, "resume", "Take a suspended lock again", options, plan_resume);
    add_identifier(command, options);
    add_type(command, options);
    add_examples(command, "  kestactl lock resume 1795240000");
    command = add_planned(lock, globals, action, "convert", "Convert a type-1 lock to a running backup, and renew it",
                          options, plan_convert);
    add_identifier(command, options);
    add_examples(command, "  kestactl lock convert 1795240000");
    add_check_and_wait(lock, globals, action, options);
    add_local(lock, globals, action, options);
    add_examples(lock,
                 "  kestactl lock check\n"
                 "  kestactl lock take --wait 60 -- kestactl copy cntbackup2backup\n"
                 "  kestactl lock release 1795240000 --controller CNT2\n"
                 "  kestactl lock local nightly -- /usr/local/sbin/nightly-backup");
}

}  // namespace kestactl
