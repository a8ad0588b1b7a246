// kestactl lock take and lock local: the command lock between controllers and the local lock of one controller, held
// while a command runs.
#include <ctype.h>
#include <kesta/kesta.h>

#include <algorithm>
#include <memory>

#include "appliance_state.h"
#include "command.h"
#include "held_command.h"
#include "held_lock.h"
#include "kesta/paths.h"
#include "lock_options.h"
#include "lock_state.h"
#include "names.h"

namespace kestactl {
namespace {

struct HeldOptions {
    int type = KESTA_LOCK_TYPE1;
    std::string group;
    int wait = 0;
    std::string name;
    std::vector<std::string> command;
};

struct Taken {
    std::string identifier;
    CommandEnd end;
};

Exit exit_of(const CommandEnd &end) { return static_cast<Exit>(end.exit_code); }

// The controller in the way of a lock that somebody wants to take, or -1.
int in_the_way(const LockState &state, const HeldOptions &options)
{
    for (const CommandLock &lock : state.held) {
        if (!lock.suspended() || options.type == KESTA_LOCK_TYPE1) {
            return lock.controller;
        }
    }
    return -1;
}

void take(const HeldOptions &options, int own, const HeldSignals &signals, Taken &taken)
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

Plan plan_take(const HeldOptions &options, const HeldSignals &signals, Taken &taken)
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
    std::vector<std::string> writes{place_of_block(KESTA_BLOCK_LOCK_CNT0 + own)};
    if (!options.group.empty()) {
        writes.push_back(place_of_block(KESTA_BLOCK_GROUP));
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

Result take_command(const HeldOptions &options, const Globals &globals)
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

void hold_local(const HeldOptions &options, CommandEnd &end)
{
    const HeldSignals signals;
    HeldLocalLock lock(options.name);
    end = signals.run(options.command);
    lock.release();
}

Result local_command(const HeldOptions &options, const Globals &globals)
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

}  // namespace

void add_lock_take(const Command &lock, Globals &globals, Action &action)
{
    auto options = std::make_shared<HeldOptions>();
    Command command =
        lock.add_subcommand("take",
                            "Take this controller's command lock and print its identifier; with a command, hold "
                            "it while that runs");
    add_type_options(command, options->type, options->group);
    add_lock_wait_option(command, options->wait);
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

void add_lock_local(const Command &lock, Globals &globals, Action &action)
{
    auto options = std::make_shared<HeldOptions>();
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

}  // namespace kestactl
