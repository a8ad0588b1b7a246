// kestactl copy archive: one archive from one place to another, tested, and nothing lost by it.
#include <memory>

#include "appliance_state.h"
#include "archive_copy.h"
#include "command.h"
#include "held_lock.h"
#include "kept_generations.h"

namespace kestactl {
namespace {

constexpr const char *copy_archive_verb = "copy archive";

Plan plan_copy_archive(const ArchiveCopyRequest &request, const KeepRule &rule)
{
    require_writable();
    learn_own_number();
    const ArchiveCopyPlan planned = plan_archive_copy(request);
    Plan plan;
    plan.shared = true;
    plan.json = {{"from", request.from}, {"to", request.to}, {"sha256", planned.sha256}, {"bytes", planned.bytes}};
    if (planned.is_there) {
        return plan;
    }
    plan.kept = std::make_shared<KeepReport>();
    plan.steps.push_back(
        {"bring the archive of " + request.from + " to " + request.to + ", keep what that held, and read it back",
         {request.to},
         [request, rule, kept = plan.kept] {
             HeldLocalLock local("environment");
             *kept = copy_archive(request, copy_archive_verb, rule);
             local.release();
         }});
    return plan;
}

Result copy_one_archive(const ArchiveCopyRequest &request, const Globals &globals)
{
    const Plan plan = plan_copy_archive(request, globals.keep_rule);
    Result result = carry_out(plan, globals);
    if (plan.steps.empty()) {
        result.text = "Nothing to do: " + request.to + " holds that archive.\n";
    }
    return result;
}

}  // namespace

void add_copy_archive(const Command &copy, Globals &globals, Action &action)
{
    auto request = std::make_shared<ArchiveCopyRequest>();
    const Command command =
        copy.add_subcommand("archive",
                            "A whole archive from one place to another; what is replaced is kept as a generation");
    command.add_option("FROM", request->from, "flash:backup, flash:accept, slot:NAME or generation:SHA256").required();
    command.add_option("TO", request->to, "flash:backup, flash:accept or slot:NAME").required();
    command.add_option("--sha256", request->sha256, "Only if FROM holds the archive with this checksum")
        .option_text("HEX");
    add_keep_options(command, globals);
    add_lock_rule(command, globals);
    add_dry_run(command, globals);
    command.callback([&action, request] {
        action = [request](const Globals &given) {
            return copy_one_archive(*request, given);
        };
    });
    add_examples(command,
                 "  kestactl copy archive slot:kesta_backup0 flash:backup --dry-run\n"
                 "  kestactl copy archive flash:accept slot:kesta_backup1");
}

}  // namespace kestactl
