#include "environment_work.h"

#include <kesta/kesta.h>
#include <string.h>
#include <climits>

#include <exception>

#include "appliance_state.h"
#include "current_change.h"
#include "kept_generations.h"
#include "leftovers.h"
#include "render.h"

namespace kestactl {
namespace {

constexpr const char *local_lock = "environment";

void run_one(const Script &script, const ScriptContext &context, Work &work)
{
    work.scripts.push_back(run_script(script.command, context, *work.signals));
    const ScriptEnd &end = work.scripts.back();
    if (!end.succeeded()) {
        throw Failure(Exit::platform, "script-failed",
                      "The script '" + script.command + "' failed: " + describe(end) + ".",
                      "Mend it, then run the command again; --script-timeout gives it more time.");
    }
}

}  // namespace

void stop_if_asked(const Work &work)
{
    if (const int signal = work.signals->pending(); signal != 0) {
        throw Failure(static_cast<Exit>(ended_by_signal + signal), "interrupted",
                      std::string("Interrupted (") + strsignal(signal) + "). What had been done is whole.",
                      "Run the command again: it completes what is unfinished.");
    }
}

Result carry_out_locked(const LockRequest &request, const std::function<Plan(Work &)> &make_plan,
                        const std::function<void(Work &)> &last, const Globals &globals)
{
    check_comment(globals.keep_rule.comment);
    Work work;
    work.keep_rule = globals.keep_rule;
    const HeldSignals signals;
    work.signals = &signals;
    if (globals.dry_run) {
        return carry_out(make_plan(work), globals);
    }
    note_change(request.group);
    HeldLocalLock local(local_lock);
    const int own = learn_own_number();
    HeldCommandLock command(own, take_command_lock(request, own, signals));
    work.lock = &command;
    const Plan plan = make_plan(work);  // refused: nothing was done, and nothing comes last
    // Whoever works now writes over what a killed command left behind.
    (void)keep_leftovers("leftovers", work.keep_rule);
    Result result;
    std::exception_ptr failure;
    try {
        result = carry_out(plan, globals);
    } catch (const std::exception &) {
        failure = std::current_exception();
    }
    (void)signals.pending();  // it has ended the steps; what comes last is done all the same
    try {
        last(work);
    } catch (const std::exception &) {
        failure = failure ? failure : std::current_exception();
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
    command.release();
    local.release();
    result.json["version"] = work.version;
    result.json["scripts"] = Json::array();
    for (const ScriptEnd &end : work.scripts) {
        result.json["scripts"].push_back(to_json(end));
    }
    return result;
}

Step guarded(Work &work, const std::string &what, std::vector<std::string> writes, const std::function<void()> &act)
{
    return {what, std::move(writes), [&work, act] {
                stop_if_asked(work);
                act();
            }};
}

Step publishing(Work &work, const std::string &what, std::vector<std::string> writes, const std::function<void()> &act)
{
    return guarded(work, what, std::move(writes), [&work, act] {
        work.lock->require_ours();
        act();
    });
}

void add_keep_step(Plan &plan, Work &work, const std::vector<ReplacedPlace> &places, const std::string &verb)
{
    if (!plan.kept) {
        plan.kept = std::make_shared<KeepReport>();
    }
    const Step keeping = keep_step(places, verb, work.keep_rule, plan.kept, [&work] { stop_if_asked(work); });
    plan.steps.push_back(publishing(work, keeping.what, keeping.writes, keeping.act));
}

void add_script_steps(Plan &plan, Work &work, const std::vector<Script> &scripts, const ScriptContext &context)
{
    for (const Script &script : scripts) {
        plan.steps.push_back(guarded(work, "run " + script.command, {"whatever the script writes"},
                                     [script, &context, &work] { run_one(script, context, work); }));
    }
}

void announce_scripts(Plan &plan, const Work &work, const std::vector<Script> &scripts)
{
    for (const Script &script : work.lock ? std::vector<Script>() : scripts) {
        plan.steps.push_back({"run " + script.command, {"whatever the script writes"}, [] {
                              }});
    }
}

void run_last(const std::vector<Script> &scripts, const ScriptContext &context, Work &work)
{
    std::exception_ptr failure;
    for (const Script &script : scripts) {
        try {
            run_one(script, context, work);
        } catch (const std::exception &) {
            failure = failure ? failure : std::current_exception();
        }
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
}

void add_wait_option(const Command &command, WorkOptions &options)
{
    command.add_option("--wait", options.wait, "Seconds to wait for the command lock").in_range(0, INT_MAX);
}

void add_script_options(const Command &command, WorkOptions &options)
{
    command.add_option("--event", options.scripts.event, "KESTA_EVENT of the scripts").may_be_empty();
    command.add_option("--platform-status", options.scripts.platform_status, "KESTA_VRBGETSTAT of the scripts")
        .may_be_empty();
    command.add_option("--script-timeout", options.scripts.timeout, "Seconds after which a script is stopped (600)")
        .in_range(1, INT_MAX);
}

}  // namespace kestactl
