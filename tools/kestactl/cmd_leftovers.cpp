// kestactl leftovers: what killed commands left behind is taken away.
#include <memory>

#include "appliance_state.h"
#include "command.h"
#include "held_lock.h"
#include "leftovers.h"

namespace kestactl {
namespace {

// A command that is at work has its files there.
void clear_when_idle(const std::string &path)
{
    HeldLocalLock local("environment");
    clear_leftover(path, "leftovers clear");
    local.release();
}

Plan plan_clear(const std::vector<std::string> &named)
{
    require_writable();
    learn_own_number();
    std::vector<std::string> paths = named;
    if (paths.empty()) {
        for (const Leftover &leftover : find_leftover_files()) {
            paths.push_back(leftover.path);
        }
    }
    Plan plan;
    plan.shared = true;
    plan.json = {{"paths", paths}};
    for (const std::string &path : paths) {
        require_leftover(path);
        plan.steps.push_back({"take " + path + " away; keep it first if it is whole and nowhere else", {path}, [path] {
                                  clear_when_idle(path);
                              }});
    }
    return plan;
}

}  // namespace

void add_leftovers(const Command &app, Globals &globals, Action &action)
{
    const Command leftovers = app.add_subcommand("leftovers", "Files that killed commands left behind");
    leftovers.require_subcommand();
    auto paths = std::make_shared<std::vector<std::string>>();
    const Command command =
        leftovers.add_subcommand("clear",
                                 "Take them away; a whole archive that is nowhere else is kept as a generation first");
    command.add_option("PATH", *paths, "Only these, as 'kestactl verify' names them");
    add_lock_rule(command, globals);
    add_dry_run(command, globals);
    command.callback([&action, paths] {
        action = [paths](const Globals &given) {
            Result result = carry_out(plan_clear(*paths), given);
            result.text = result.json.at("paths").empty() ? "Nothing was left behind.\n" : result.text;
            return result;
        };
    });
    add_examples(command, "  kestactl leftovers clear --dry-run");
    add_examples(leftovers, "  kestactl leftovers clear --dry-run");
}

}  // namespace kestactl
