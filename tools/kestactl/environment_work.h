// What save, accept and restore share: the locks they hold, steps that look before they act, and the group's
// scripts.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "command.h"
#include "group_definition.h"
#include "held_command.h"
#include "held_lock.h"
#include "script_run.h"

namespace kestactl {

// What a run has come to know, for its steps and for its result.
struct Work {
    const HeldSignals *signals = nullptr;
    const HeldCommandLock *lock = nullptr;
    int version = 0;
    KeepRule keep_rule;
    std::vector<ScriptEnd> scripts;
};

// The options of a whole run.
struct WorkOptions {
    int wait = 0;  // seconds for the command lock
    ScriptContext scripts;
};
void add_wait_option(const Command &command, WorkOptions &options);
void add_script_options(const Command &command, WorkOptions &options);

// Carries out a plan with the local and the command lock held, and lets go of them on every way out. What
// comes last is done even if a step failed. Throws Failure.
Result carry_out_locked(const LockRequest &request, const std::function<Plan(Work &)> &make_plan,
                        const std::function<void(Work &)> &last, const Globals &globals);

// Throws Failure if a signal has asked the command to end.
void stop_if_asked(const Work &work);

// A step that looks first whether it may still be done.
Step guarded(Work &work, const std::string &what, std::vector<std::string> writes, const std::function<void()> &act);

// The same for one that others see: the command lock must still be ours.
Step publishing(Work &work, const std::string &what, std::vector<std::string> writes, const std::function<void()> &act);

// The step that keeps what these places hold, before the ones that replace it.
void add_keep_step(Plan &plan, Work &work, const std::vector<ReplacedPlace> &places, const std::string &verb);

// One step for each script; the first that fails ends the plan. The options must outlive it.
void add_script_steps(Plan &plan, Work &work, const std::vector<Script> &scripts, const ScriptContext &context);

// The scripts of the end in a dry run's plan: they are run by run_last.
void announce_scripts(Plan &plan, const Work &work, const std::vector<Script> &scripts);

// They undo what the scripts before did: all are run, also after a failure. Throws the first Failure.
void run_last(const std::vector<Script> &scripts, const ScriptContext &context, Work &work);

}  // namespace kestactl
