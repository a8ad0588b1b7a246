// kestactl restore: a group's files put back by its definition; or a slot brought to flash, and one of the
// group's own restore scripts run.
#include <kesta/kesta.h>
#include <string.h>

#include <array>
#include <map>
#include <memory>
#include <optional>

#include "appliance_state.h"
#include "archive_evidence.h"
#include "archive_places.h"
#include "command.h"
#include "environment_archive.h"
#include "kept_generations.h"
#include "kesta/paths.h"
#include "leftovers.h"
#include "names.h"
#include "restore_files.h"
#include "trace_capture.h"
#include "whole_file.h"

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
    std::optional<RestoreScript> script;
    int distribution = 0;
    bool switch_only = false;
    bool no_switch = false;
    bool skip_flashcopy = false;

    // One of the flow's own options asks for it.
    bool asks_for_flow() const { return script || distribution != 0 || switch_only || no_switch || skip_flashcopy; }
    RestoreScript kind() const { return script.value_or(RestoreScript::update); }
};

const std::map<std::string, RestoreScript> restore_scripts{{"update", RestoreScript::update},
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
    if (options.switch_only || options.kind() == RestoreScript::none) {
        return "";
    }
    const std::string kind = options.kind() == RestoreScript::update ? "ud" : "rb";
    const std::string side = planned.area_flag == no_switch_accept_side ? "ap" : "bk";
    const std::string number = options.distribution == 0 ? "" : std::to_string(options.distribution);
    return KESTA_GROUP_DIRECTORY + options.group + "/" KESTA_RESTORE_SCRIPT_BEGIN + kind + side + number +
           KESTA_SCRIPT_END;
}

// Slots go by name, so that what was planned is what is done.
Planned resolve(const RestoreOptions &options)
{
    Planned planned;
    if (options.no_switch) {
        planned.area_flag = options.from == "accept" ? no_switch_accept_side : no_switch_backup_side;
    } else {
        planned.area_flag = switch_given_slot;
        planned.slot = options.from == "backup"   ? require_slot(backup_slot(), "backup")
                       : options.from == "accept" ? require_slot(accept_slot(), "accept")
                                                  : options.from;
    }
    planned.script = script_path(options, planned);
    planned.copies_accept = !options.switch_only && options.kind() == RestoreScript::update && !options.skip_flashcopy;
    return planned;
}

void check_options(const RestoreOptions &options)
{
    check_group(options.group);
    if (options.from != "backup" && options.from != "accept") {
        check_slot(options.from);
        if (options.no_switch) {
            throw Failure(Exit::usage, "bad-from", "--no-switch takes no slot: it restores what is on flash.",
                          "Use --from backup or --from accept to choose the side of the script.");
        }
    }
    if (options.no_switch && options.switch_only) {
        throw Failure(Exit::usage, "nothing-to-do", "--no-switch and --switch-only together leave nothing to do.",
                      "Leave one of them out.");
    }
}

// What is on flash may be the last good one. Returns the bytes that will be written there.
std::uint64_t require_whole_slot(const std::string &slot)
{
    const ArchiveEvidence evidence = evidence_of_slot(slot);
    if (evidence.state == CopyState::damaged) {
        throw Failure(Exit::no, "damaged-archive",
                      "Slot " + slot + " holds a damaged archive, and it is not brought to flash: " + evidence.reason +
                          ".",
                      "Restore another slot with --from, or save again: 'kestactl verify' shows which place has a "
                      "whole one.");
    }
    require_whole(evidence, "slot " + slot);
    return evidence.bytes;
}

// The library ends quietly where the accept archive can't be copied; here it is said beforehand. Returns the bytes that
// will be written to flash.
std::uint64_t check_sources(const Planned &planned)
{
    std::uint64_t bytes = 0;
    if (planned.copies_accept) {
        require_file(flash_accept,
                     "An update restore needs the accepted environment on flash; --skip-flashcopy "
                     "goes on without it.");
    }
    if (!planned.slot.empty()) {
        bytes = require_whole_slot(planned.slot);
    }
    if (!planned.script.empty()) {
        require_file(planned.script, "The group needs a restore script of that name.");
    }
    return bytes;
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

// The flow brings a slot to flash under another name first; cp writes into the merge cache.
std::vector<ReplacedPlace> archives_replaced(const Planned &planned)
{
    std::vector<ReplacedPlace> places;
    if (!planned.slot.empty()) {
        places.push_back({flash_backup, Replacing::by_rename});
    }
    if (planned.copies_accept) {
        places.push_back({merge_backup, Replacing::in_place});
    }
    return places;
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
                  "Check the space and the mode of " KESTA_FLASH_DIRECTORY ", and --trace 1.");
    case KESTA_RESTORE_READ_FAILED:
        fail_call("slot-unreadable", "Slot " + planned.slot + " can't be read; flash is as it was, no script was run.",
                  "Check the system backup area, or restore another slot with --from.");
    case KESTA_RESTORE_SCRIPT_FAILED:
        fail_call("script-failed",
                  "The restore script " + planned.script +
                      " failed; flash has the new environment, the running one may be incomplete.",
                  "Run the script by hand to see what it says, then restore again with --no-switch.");
    default:
        fail_call("restore-failed", "The restore failed with result " + std::to_string(result) + ".",
                  "Look at --trace 1.");
    }
    // The flow calls it success, and leaves the script out. Of its commands only this one's failure ends so.
    if (kesta_last_cause()->kind == KESTA_CAUSE_COMMAND) {
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
    if (!planned.slot.empty()) {
        (void)keep_leftovers("restore", {});
        remove_quietly(unfinished_flash_copy);  // the flow writes into what is there, and keeps a longer tail
    }
    kesta_clear_cause();
    explain(kestal_sysback2current(options.group.c_str(), options.switch_only ? switch_only_flag : 0, planned.area_flag,
                                   static_cast<int>(options.kind()), options.distribution, name.data(),
                                   options.skip_flashcopy),
            planned);
}

Plan plan_restore(const RestoreOptions &options)
{
    check_options(options);
    require_writable();
    const Planned planned = resolve(options);
    Plan plan;
    plan.room = check_sources(planned);
    plan.shared = true;
    plan.json = {{"group", options.group}, {"slot", planned.slot}, {"script", planned.script}};
    plan.verb = "restore";
    plan.replaces = archives_replaced(planned);
    plan.steps.push_back({describe(planned), places_written(planned), [options, planned] {
                              restore(options, planned);
                          }});
    return plan;
}

Result restore_by(const RestoreOptions &options, RestoreFilesOptions files, const Globals &globals)
{
    if (!options.asks_for_flow()) {
        check_group(options.group);
        if (options.from != "backup" && options.from != "accept") {
            check_slot(options.from);
        }
        files.request.group = options.group;
        files.request.from = options.from;
        return restore_files(files, globals);
    }
    if (!files.request.only.empty() || files.request.on_reboot || !files.request.generation.empty()) {
        throw Failure(
            Exit::usage, "two-ways",
            "--only, --on-reboot and --generation are for a restore by the definition, the other options for one "
            "by the group's own scripts.",
            "Leave one of them out: see 'kestactl restore --help'.");
    }
    Globals waiting = globals;
    waiting.lock_rule.wait = files.work.wait;
    return carry_out(plan_restore(options), waiting);
}

}  // namespace

void add_restore(const Command &app, Globals &globals, Action &action)
{
    auto options = std::make_shared<RestoreOptions>();
    auto files = std::make_shared<RestoreFilesOptions>();
    const Command command =
        app.add_subcommand("restore",
                           "Bring a saved environment back to this controller: the files of the group's definition, "
                           "or with --script by one of the group's own scripts");
    command.add_option("GROUP", options->group, "Group name").required();
    const Option from = command.add_option("--from", options->from, "backup, accept, or a slot by its name");
    command
        .add_option("--generation", files->request.generation,
                    "What was there before, by its number in 'kestactl history'")
        .option_text("N")
        .excludes(from);
    command.add_option("--only", files->request.only, "Restore this path of the group, or below one, and no more");
    command.add_flag("--on-reboot", files->request.on_reboot,
                     "For the next reboot: re-post-scripts instead of post-scripts, and the reboot version");
    add_wait_option(command, files->work);
    add_script_options(command, files->work);
    command
        .add_choice("--script", options->script, restore_scripts,
                    "Which of the group's own scripts: update, reboot or none")
        .option_text("update|reboot|none")
        .group("The group's own scripts");
    command
        .add_option("--distribution", options->distribution,
                    "Number that becomes part of the script's name, 0 for none")
        .group("The group's own scripts");
    command.add_flag("--switch-only", options->switch_only, "Bring the slot to flash, no more")
        .group("The group's own scripts");
    command.add_flag("--no-switch", options->no_switch, "Restore what is on flash already")
        .group("The group's own scripts");
    command
        .add_flag("--skip-flashcopy", options->skip_flashcopy,
                  "Don't copy flash accept.tar.Z to the merge cache before an update script")
        .group("The group's own scripts");
    add_keep_options(command, globals);
    add_dry_run(command, globals);
    add_examples(command,
                 "  kestactl restore network --dry-run\n"
                 "  kestactl restore network --only /etc/hosts\n"
                 "  kestactl restore network --from accept --on-reboot\n"
                 "  kestactl restore network --generation 3\n"
                 "  kestactl restore network --from kesta_backup1 --switch-only\n"
                 "  kestactl restore network --script update --skip-flashcopy");
    command.callback([&action, options, files] {
        action = [options, files](const Globals &given) {
            return restore_by(*options, *files, given);
        };
    });
}

}  // namespace kestactl
