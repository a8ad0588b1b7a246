// What all subcommands share: how they are added, and how a plan is carried out.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "options.h"
#include "plan.h"

namespace kestactl {

using options::Command;
using options::Option;
using options::require;

// Tells a terminal how large a file has grown, every other second at most. It is called while a step works.
void tell_growth(const std::string &path);

// Prints the plan, or carries it out and tells what was done.
Result carry_out(const Plan &plan, const Globals &globals);

using Action = std::function<Result(const Globals &)>;

// Acts, and tells the log of changes and the journal what was changed, and how it ended.
Result act_and_tell(const Action &action, const Globals &globals);

// Subcommands register themselves, and set action when they are chosen.
void add_status(const Command &app, Globals &globals, Action &action);
void add_nv(const Command &app, Globals &globals, Action &action);
void add_nv_image(const Command &nv, Globals &globals, Action &action);
void add_nv_dump(const Command &nv, Action &action);
void add_nv_verify(const Command &nv, Action &action);
void add_repair(const Command &app, Globals &globals, Action &action);
void add_completion(const Command &app, Action &action);
void add_diff(const Command &app, Action &action);
void add_history(const Command &app, Globals &globals, Action &action);
void add_undo(const Command &app, Globals &globals, Action &action);
void add_metrics(const Command &app, Action &action);
void add_check(const Command &app, Action &action);
void add_verify(const Command &app, Globals &globals, Action &action);
void add_leftovers(const Command &app, Globals &globals, Action &action);
void add_copy_archive(const Command &copy, Globals &globals, Action &action);
void add_report(const Command &app, Action &action);
void add_save(const Command &app, Globals &globals, Action &action);
void add_accept(const Command &app, Globals &globals, Action &action);
void add_identity(const Command &app, Globals &globals, Action &action);
void add_identity_carry(const Command &identity, Globals &globals, Action &action);
void add_slot(const Command &app, Globals &globals, Action &action);
void add_copy(const Command &app, Globals &globals, Action &action);
void add_restore(const Command &app, Globals &globals, Action &action);
void add_group(const Command &app, Globals &globals, Action &action);
void add_script(const Command &app, Globals &globals, Action &action);
void add_version(const Command &app, Globals &globals, Action &action);
void add_lock(const Command &app, Globals &globals, Action &action);
void add_lock_take(const Command &lock, Globals &globals, Action &action);
void add_lock_local(const Command &lock, Globals &globals, Action &action);
void add_run(const Command &app, Globals &globals, Action &action);

// What every help text ends with, and the same behind a command's own examples. A group of commands
// gets its examples after its commands, which would take them over otherwise.
extern const char *const exit_codes;
void add_examples(const Command &command, std::string_view examples);

// The text of JSON that any terminal and any reader can take: beyond ASCII as \u escapes, and what is no UTF-8
// replaced.
std::string dumped(const Json &json, int indent = -1);

// Words with blanks between them.
std::string joined(const std::vector<std::string> &words);

// Asks on the terminal before something is lost, unless the answer was given with --yes. Throws
// Failure if the answer is not yes, or can't be had.
void confirm(const std::string &question, bool yes);

// Adds --dry-run to a changing command.
void add_dry_run(const Command &command, Globals &globals);

// Adds --watch to a command that shows something.
void add_watch(const Command &command, Globals &globals);

// Adds --wait and --ignore-lock to a command whose plan is shared.
void add_lock_rule(const Command &command, Globals &globals);

}  // namespace kestactl
