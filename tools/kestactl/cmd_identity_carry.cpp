// kestactl identity carry: the identity from one place to the others.
#include <kesta/kesta.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <iostream>

#include "appliance_state.h"
#include "archive_places.h"
#include "command.h"
#include "environment_archive.h"
#include "identity_archive.h"
#include "identity_state.h"
#include "kept_generations.h"
#include "kesta/paths.h"
#include "names.h"
#include "overlong_mirror.h"
#include "printable.h"
#include "trace_capture.h"

namespace kestactl {
namespace {

constexpr const char *vpd_to_flash = "identity carry vpd-to-flash";

struct Progress {
    const char *trace;  // how the step's trace begins
    const char *text;
};
constexpr std::array<Progress, 5> steps_of_a_flow{{
    {"[update_vpdinfo_distribute_open] Start.", "opening the saved environment"},
    {"[update_vpdinfo_eeprom] Start.", "setting WWN and serial number in the boot environments"},
    {"[update_vpdinfo_guid] Start.", "writing the GUID"},
    {"[update_host_info] Start.", "naming the controllers"},
    {"[update_vpdinfo_collect_close] Start.", "packing the saved environment"},
}};

// Says on stderr which step has begun, for as long as this lives.
class ProgressLines {
public:
    ProgressLines()
    {
        watch_traces([](const std::string &line) {
            for (const Progress &step : steps_of_a_flow) {
                if (line.rfind(step.trace, 0) == 0) {
                    std::cerr << "... " << step.text << "\n";
                }
            }
        });
    }
    ~ProgressLines() { watch_traces(nullptr); }
    ProgressLines(const ProgressLines &) = delete;
    ProgressLines &operator=(const ProgressLines &) = delete;
};

// A flow runs commands; the one that failed is named, to be run by hand.
[[noreturn]] void fail_flow()
{
    const KESTA_CAUSE cause = *kesta_last_cause();
    if (cause.kind == KESTA_CAUSE_COMMAND) {
        throw Failure(Exit::platform, "carry-failed",
                      "The identity was not carried whole: " + plain_text(cause.text) + ".",
                      "Run that command by hand, and see what it says; then run this one again.");
    }
    fail_call("carry-failed", "The identity was not carried whole.",
              "Look at --trace 1 for the failed call, and run the command again.");
}

using Field17 = std::array<char, KESTA_WWN_LENGTH + 1>;
using Field37 = std::array<char, KESTA_GUID_TEXT_LENGTH + 1>;

template <typename Field>
Field field_of(const std::string &text)
{
    Field field{};
    memcpy(field.data(), text.data(), std::min(text.size(), field.size() - 1));
    return field;
}

void run_vpd_to_flash(const Identity &running)
{
    const ProgressLines progress;
    Field17 wwn = field_of<Field17>(*running.wwn);
    Field17 serialno = field_of<Field17>(*running.serialno);
    Field37 guid = field_of<Field37>(*running.guid);
    kesta_clear_cause();
    const int result = kestal_vpd_to_flash(wwn.data(), serialno.data(), guid.data());
    // Where the tool can't be read or written, the flow calls it nothing to do.
    if (result < 0 || (result == KESTA_OK && read_identity(Place::vpd) != running)) {
        fail_flow();
    }
}

Json identity_json(const Identity &identity)
{
    return {{"wwn", identity.wwn.value_or("")},
            {"serialno", identity.serialno.value_or("")},
            {"guid", identity.guid.value_or("")}};
}

void require_tool()
{
    Field17 unused{};
    if (kestal_get_vpn_info(unused.data(), nullptr, nullptr) != KESTA_OK) {
        throw Failure(Exit::platform, "vpd-failed", "The VPD tool can't be read.",
                      "Run '" KESTA_VPD_TOOL " -r' by hand, and see what it says.");
    }
}

void require_whole(const Identity &identity, const std::string &where, const std::string &hint)
{
    if (!is_whole(identity)) {
        throw Failure(Exit::no, "no-identity", where + " holds no whole identity.", hint);
    }
    // The flows hand the values to commands; they refuse what a shell would act on, and one of them tells of
    // it in its traces only.
    for (const std::string *value : {&*identity.wwn, &*identity.serialno}) {
        if (kesta_is_shell_word(value->c_str()) == 0) {
            throw Failure(Exit::no, "bad-identity",
                          where + " holds '" + *value + "', which can't be handed to the VPD tool or the eeprom.",
                          "It has characters that a shell would act on. Set another value with "
                          "'kestactl identity set'.");
        }
    }
}

// Where a flow is not needed, what it leaves to its callers may still be.
void add_own_copies(Plan &plan, const Identity &identity)
{
    const Identity flash = read_identity(Place::flash);
    if (flash.wwn != identity.wwn || flash.guid != identity.guid) {
        plan.steps.push_back({"write the flash files", {KESTA_WWN_FILE, KESTA_GUID_FILE}, [identity] {
                                  set_flash(identity);
                              }});
    }
    if (read_identity(Place::memory) != identity || read_identity(Place::disk) != identity) {
        plan.steps.push_back(
            {"write the NV image", {"NV memory and system backup area: blocks 201 to 203"}, [identity] {
                 set_image(identity);
             }});
    }
}

Plan plan_vpd_to_flash()
{
    require_writable();
    if (const int number = learn_own_number(); number > 1) {
        throw Failure(Exit::usage, "bad-controller",
                      "This is " + controller_name(number) + "; identities are carried on CNT0 and CNT1.",
                      "Run the command on CNT0 or CNT1.");
    }
    require_tool();
    const Identity board = read_identity(Place::vpd);
    const Identity running = running_identity();
    Plan plan;
    plan.shared = true;
    plan.json = {{"from", identity_json(board)}, {"to", identity_json(running)}};
    if (!is_whole(board)) {
        const std::string hint = "Set one with 'kestactl identity set --wwn ... --serialno ... --guid ...'.";
        if (!is_whole(running)) {
            throw Failure(Exit::no, "no-identity", "Neither the board nor this controller holds a whole identity.",
                          hint);
        }
        require_whole(running, "This controller", hint);
        plan.steps.push_back(
            {"give the board this controller's identity: it holds no whole one", {"the board's VPD"}, [running] {
                 run_vpd_to_flash(running);
             }});
        return plan;
    }
    if (board != running) {
        require_file(flash_backup, "The identity goes into the saved environment: put one there first.");
        check_identity_archive(contents_of_path(flash_backup), flash_backup);
        plan.verb = vpd_to_flash;
        plan.replaces = {{flash_backup, Replacing::by_rename}};
        plan.steps.push_back(
            {"carry the board's identity into the saved environment and the system",
             {flash_backup, KESTA_BOOT_ENVIRONMENT, KESTA_NODENAME_FILE, KESTA_HOSTS_FILE, KESTA_GUID_FILE},
             [running] {
                 run_vpd_to_flash(running);
             }});
    }
    add_own_copies(plan, board);
    return plan;
}

void run_vpd_to_disk(const Identity &disk)
{
    (void)kestal_vpd_to_hdd(nullptr, nullptr, nullptr);  // it tells of failures in traces only
    if (read_identity(Place::vpd) != disk) {
        throw Failure(Exit::platform, "vpd-failed", "The VPD tool did not take the identity.",
                      "Look at --trace 1 for the failed call.");
    }
}

Plan plan_vpd_to_disk()
{
    require_writable();
    learn_own_number();
    require_tool();
    const Identity disk = shared_identity();
    require_whole(disk, "The NV image",
                  "Carry the board's identity into it with 'kestactl identity carry vpd-to-flash'.");
    const Identity board = read_identity(Place::vpd);
    Plan plan;
    plan.shared = true;
    plan.json = {{"from", identity_json(disk)}, {"to", identity_json(board)}};
    if (board != disk) {
        for (const Block *const block : overlong_mirrors()) {
            plan.steps.push_back(
                {"write the mirror of " + block->name + " anew without what is behind its value, for it to be read",
                 {"system backup area: block " + std::to_string(block->id)},
                 [block] {
                     shorten_mirror(*block);
                 }});
        }
        plan.steps.push_back({"give the board the identity of the NV image", {"the board's VPD"}, [disk] {
                                  run_vpd_to_disk(disk);
                              }});
    }
    return plan;
}

void run_cnt0_to_cnt1(const Identity &from, const Identity &own)
{
    const ProgressLines progress;
    if (kestal_CONT0_to_CONT1(from.wwn->c_str(), own.wwn->c_str(), from.serialno->c_str(), own.serialno->c_str()) < 0) {
        fail_flow();
    }
}

// From the staging tree, which the flow leaves open. Naming the controllers once more tells the library
// whose part of the tree is its own.
void bring_into_force(const Identity &from)
{
    const ProgressLines progress;
    if (kestal_update_vpdinfo_guid(from.guid->c_str()) != KESTA_OK ||
        kestal_update_host_info(from.wwn->c_str(), from.wwn->c_str()) != KESTA_OK ||
        kestal_update_vpdinfo_collect_close(0) != KESTA_OK) {
        fail_flow();
    }
}

void record_version()
{
    const int number = learn_own_number();
    const int version = kestal_read_version(KESTA_VER_AREA_BACKUP, number, 1);
    ask_both_places();
    if (version < 1 || kestal_set_version(KESTA_VER_AREA_CURRENT, number, version) != KESTA_OK ||
        kestal_set_flash_version_file(version, KESTA_FLASH_VERSION) != KESTA_OK) {
        fail_call("version-failed", "This controller's version could not be recorded.",
                  "Set it with 'kestactl version set current' and 'version set flash' to what "
                  "'kestactl version show' tells of the backup.");
    }
}

void require_version_to_raise()
{
    if (kestal_read_version(KESTA_VER_AREA_BACKUP, learn_own_number(), KESTA_VERSION_BY_MODE) < 1) {
        throw Failure(Exit::no, "no-version", "There is no backup version that could be raised.",
                      "Save the environment on CNT0 with 'kestactl save GROUP', or set it with 'kestactl version set "
                      "backup 1'.");
    }
}

// Where the flow stores the changed environment: the accept slot, or the second one if none is named.
std::string slot_of_the_flow() { return accept_slot() == KESTA_SLOT0 ? KESTA_SLOT0 : KESTA_SLOT1; }

Plan plan_cnt0_to_cnt1()
{
    require_writable();
    if (const int number = learn_own_number(); number != 1) {
        throw Failure(Exit::usage, "bad-controller",
                      "This is " + controller_name(number) + "; the identity of CNT0 is carried to CNT1.",
                      "Run the command on CNT1.");
    }
    const Identity from = shared_identity();
    require_whole(from, "The NV image", "Carry it there on CNT0: kestactl identity carry vpd-to-flash.");
    const Identity own = running_identity();
    Plan plan;
    plan.shared = true;
    plan.json = {{"from", identity_json(from)}, {"to", identity_json(own)}};
    if (own.wwn != from.wwn || own.serialno != from.serialno) {
        const std::string backup = require_slot(backup_slot(), "backup");
        check_identity_archive(read_slot(backup), "Slot " + backup);
        require_version_to_raise();
        plan.verb = "identity carry cnt0-to-cnt1";
        plan.replaces = {{place_of_slot(slot_of_the_flow()), Replacing::in_place},
                         {flash_backup, Replacing::by_rename},
                         {cache_backup, Replacing::by_rename},
                         {merge_backup, Replacing::by_rename}};
        plan.steps.push_back({"carry the identity into the saved environment",
                              {"system backup area: the accept slot, kesta_sysacpt, kesta_sysback, kesta_verback, "
                               "kesta_reboot",
                               place_of_block(KESTA_BLOCK_BACKUP_NAME), place_of_block(KESTA_BLOCK_ACCEPT_NAME),
                               place_of_block(KESTA_BLOCK_BACKUP_VERSION)},
                              [from, own] {
                                  run_cnt0_to_cnt1(from, own);
                              }});
        plan.steps.push_back(
            {"bring it into force on this controller",
             {flash_backup, KESTA_BOOT_ENVIRONMENT, KESTA_NODENAME_FILE, KESTA_HOSTS_FILE, KESTA_GUID_FILE},
             [from] {
                 bring_into_force(from);
             }});
        plan.steps.push_back(
            {"record the raised version for this controller", {"version-cnt1", KESTA_VERSION_FILE}, record_version});
    }
    add_own_copies(plan, from);
    return plan;
}

std::string next_after(const std::string &verb)
{
    if (verb != vpd_to_flash) {
        return "Next: 'kestactl identity carry vpd-to-disk' gives this board the same identity; on CNT0 'kestactl save "
               "GROUP' and 'kestactl accept' store what runs now.\n";
    }
    return std::string("Next: 'kestactl copy cntbackup2backup' puts the changed environment into its slot") +
           (learn_own_number() == 0 ? "; CNT1 follows with 'kestactl identity carry cnt0-to-cnt1'.\n" : ".\n");
}

Result carry(Plan (*make_plan)(), const Globals &globals)
{
    const Plan plan = make_plan();
    Result result = carry_out(plan, globals);
    if (plan.steps.empty()) {
        result.text = "Nothing to carry: the identities agree.\n";
    } else if (!globals.dry_run && !plan.replaces.empty()) {
        result.text += next_after(plan.verb);
    }
    return result;
}

}  // namespace

void add_identity_carry(const Command &identity, Globals &globals, Action &action)
{
    const Command carrying = identity.add_subcommand("carry", "Carry the identity from one place to the others");
    carrying.require_subcommand();
    struct Flow {
        const char *name;
        const char *what;
        Plan (*make_plan)();
        bool replaces_archives;
    };
    constexpr std::array<Flow, 3> flows{{
        {"vpd-to-flash", "The board is right: into the saved environment, the system and the NV image",
         plan_vpd_to_flash, true},
        {"vpd-to-disk", "The disk is right: the board's VPD gets the identity of the NV image", plan_vpd_to_disk,
         false},
        {"cnt0-to-cnt1", "On CNT1: CNT0's identity, as the NV image has it, into all of its places", plan_cnt0_to_cnt1,
         true},
    }};
    for (const Flow &flow : flows) {
        const Command command = carrying.add_subcommand(flow.name, flow.what);
        if (flow.replaces_archives) {
            add_keep_options(command, globals);
        }
        add_lock_rule(command, globals);
        add_dry_run(command, globals);
        command.callback([&action, make_plan = flow.make_plan] {
            action = [make_plan](const Globals &given) {
                return carry(make_plan, given);
            };
        });
        add_examples(command, std::string("  kestactl identity carry ") + flow.name +
                                  " --dry-run\n  kestactl identity carry " + flow.name);
    }
    add_examples(carrying,
                 "  kestactl identity carry vpd-to-flash --dry-run\n"
                 "  kestactl identity carry cnt0-to-cnt1");
}

}  // namespace kestactl
