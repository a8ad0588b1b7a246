// kestactl restore: bring a slot to flash, and run one of the group's restore scripts.
#include <kesta/kesta.h>
#include <string.h>

#include <array>
#include <map>
#include <memory>

#include "appliance_state.h"
#include "archive_places.h"
#include "command.h"
#include "names.h"
#include "trace_capture.h"

namespace kestactl {
namespace {

// The library's arguments.
constexpr int switch_given_slot = 4;  // any value outside 0..3
constexpr int no_switch_backup_side = 2;
constexpr int no_switch_accept_side = 3;
constexpr int switch_only_flag = 1;

enum class RestoreScript : int { none = 0, update = 1, reboot = 2 };

struct RestoreOptions {
    std::string group;
    std::string from = "backup";
    RestoreScript script = RestoreScript::update;
    int distribution = 0;
    bool switch_only = false;
    bool no_switch = false;
    bool skip_flashcopy = false;
};

const std::map<std::string, RestoreScript> restore_scripts{
    {"update", RestoreScript::update},
    {"reboot", RestoreScript::reboot},
    {"none", RestoreScript::none}};

struct Planned {
    std::string slot;    // empty: no switch stage
    std::string script;  // empty: none is run
    int area_flag = no_switch_backup_side;
    bool copies_accept = false;
};

// A switch runs the backup-side script, whichever slot it takes.
std::string script_path(const RestoreOptions &options, const Planned &planned)
{
    if (options.switch_only || options.script == RestoreScript::none) {
        return "";
    }
    const std::string kind = options.script == RestoreScript::update ? "ud" : "rb";
    const std::string side = planned.area_flag == no_switch_accept_side ? "ap" : "bk";
    const std::string number =
        options.distribution == 0 ? "" : std::to_string(options.distribution);
    return "/etc/kesta_sys/" + options.group + "/env_restore1_" + kind + side + number + "_scr.sh";
}

// Slots go by name, so that what was planned is what is done.
Planned resolve(const RestoreOptions &options)
{
    Planned planned;
    if (options.no_switch) {
        planned.area_flag =
            options.from == "accept" ? no_switch_accept_side : no_switch_backup_side;
    } else {
        planned.area_flag = switch_given_slot;
        planned.slot = options.from == "backup"   ? require_slot(backup_slot(), "backup")
                       : options.from == "accept" ? require_slot(accept_slot(), "accept")
                                                  : options.from;
    }
    planned.script = script_path(options, planned);
    planned.copies_accept =
        !options.switch_only && options.script == RestoreScript::update && !options.skip_flashcopy;
    return planned;
}

void check_options(const RestoreOptions &options)
{
    check_group(options.group);
    if (options.from != "backup" && options.from != "accept") {
        check_slot(options.from);
        if (options.no_switch) {
            throw Failure(Exit::usage, "bad-from",
                          "--no-switch takes no slot: it restores what is on flash.",
                          "Use --from backup or --from accept to choose the side of the script.");
        }
    }
    if (options.no_switch && options.switch_only) {
        throw Failure(Exit::usage, "nothing-to-do",
                      "--no-switch and --switch-only together leave nothing to do.",
                      "Leave one of them out.");
    }
}

// The library ends quietly where the accept archive can't be copied; here it is said beforehand.
void check_sources(const Planned &planned)
{
    if (planned.copies_accept) {
        require_file(flash_accept,
                     "An update restore needs the accepted environment on flash; --skip-flashcopy "
                     "goes on without it.");
    }
    if (!planned.script.empty()) {
        require_file(planned.script, "The group needs a restore script of that name.");
    }
}

std::vector<std::string> places_written(const Planned &planned)
{
    std::vector<std::string> writes;
    if (!planned.slot.empty()) {
        writes.push_back(flash_backup);
    }
    if (planned.copies_accept) {
        writes.push_back(merge_backup);
    }
    if (!planned.script.empty()) {
        writes.push_back("the running configuration, as the script does it");
    }
    return writes;
}

std::string describe(const Planned &planned)
{
    std::string what;
    const auto add = [&what](const std::string &part) {
        what += (what.empty() ? "" : ", then ") + part;
    };
    if (!planned.slot.empty()) {
        add("bring slot " + planned.slot + " to " + flash_backup);
    }
    if (planned.copies_accept) {
        add(std::string("copy ") + flash_accept + " to " + merge_backup);
    }
    add(planned.script.empty() ? "run no script" : "run " + planned.script);
    return what;
}

void explain(int result, const Planned &planned)
{
    switch (result) {
    case KESTA_OK:
        break;
    case KESTA_RESTORE_SWITCH_FAILED:
        fail_call("switch-failed", "The slot was not brought to flash; no script was run.",
                  "Check the space and the mode of /opt/kesta_sys/bakup/, and --trace 1.");
    case KESTA_RESTORE_READ_FAILED:
        fail_call("slot-unreadable",
                  "Slot " + planned.slot + " can't be read; flash is as it was, no script was run.",
                  "Check the system backup area, or restore another slot with --from.");
    case KESTA_RESTORE_SCRIPT_FAILED:
        fail_call("script-failed",
                  "The restore script " + planned.script +
                      " failed; flash has the new environment, the running one may be incomplete.",
                  "Run the script by hand to see what it says, then restore again with --no-switch.");
    default:
        fail_call("restore-failed",
                  "The restore failed with result " + std::to_string(result) + ".",
                  "Look at --trace 1.");
    }
    if (was_traced("[sysback2current] FLASHCOPY(cmd:")) {
        fail_call("flashcopy-failed",
                  std::string(flash_accept) + " could not be copied to " + merge_backup +
                      ", so the script was not run.",
                  "Check the space in /var/run, or use --skip-flashcopy.");
    }
}

void restore(const RestoreOptions &options, const Planned &planned)
{
    std::array<char, KESTA_AREA_NAME_SIZE> name{};
    memcpy(name.data(), planned.slot.data(), planned.slot.size());
    learn_own_number();
    explain(kestal_sysback2current(options.group.c_str(), options.switch_only ? switch_only_flag : 0,
                                   planned.area_flag, static_cast<int>(options.script),
                                   options.distribution, name.data(), options.skip_flashcopy),
            planned);
}

Plan plan_restore(const RestoreOptions &options)
{
    check_options(options);
    require_writable();
    const Planned planned = resolve(options);
    check_sources(planned);
    Plan plan;
    plan.json = {{"group", options.group}, {"slot", planned.slot}, {"script", planned.script}};
    plan.steps.push_back({describe(planned), places_written(planned),
                          [options, planned] { restore(options, planned); }});
    return plan;
}

}  // namespace

void add_restore(CLI::App &app, Globals &globals, Action &action)
{
    auto options = std::make_shared<RestoreOptions>();
    CLI::App *command =
        app.add_subcommand("restore", "Bring a saved environment back to this controller");
    command->add_option("GROUP", options->group, "Group whose restore script is run")->required();
    command->add_option("--from", options->from, "backup, accept, or a slot by its name");
    command->add_option("--script", options->script, "Which script to run: update, reboot or none")
        ->transform(CLI::CheckedTransformer(restore_scripts))
        ->option_text("update|reboot|none");
    command->add_option("--distribution", options->distribution,
                        "Number that becomes part of the script's name, 0 for none");
    command->add_flag("--switch-only", options->switch_only, "Bring the slot to flash, no more");
    command->add_flag("--no-switch", options->no_switch, "Restore what is on flash already");
    command->add_flag("--skip-flashcopy", options->skip_flashcopy,
                      "Don't copy flash accept.tar.Z to the merge cache before an update script");
    add_dry_run(*command, globals);
    add_examples(*command, "  kestactl restore network --dry-run\n"
                           "  kestactl restore network --from accept --skip-flashcopy\n"
                           "  kestactl restore network --from kesta_backup1 --switch-only\n"
                           "  kestactl restore network --no-switch --script reboot");
    command->callback([&action, options] {
        action = [options](const Globals &given) {
            return carry_out(plan_restore(*options), given);
        };
    });
}

}  // namespace kestactl
