// kestactl copy: one verb for each flow that moves archives between the storage places.
#include <kesta/kesta.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <memory>

#include "appliance_state.h"
#include "archive_evidence.h"
#include "archive_places.h"
#include "command.h"
#include "kept_generations.h"
#include "kesta/paths.h"
#include "names.h"
#include "storage_places.h"
#include "version_numbers.h"

namespace kestactl {
namespace {

constexpr int unpack_mode = 1;
constexpr int check_mode = 0;

const std::string save_hint = "Save an environment into it first.";

struct CopyOptions {
    std::string group = "default";
    std::string slot;
    bool accept = false;
    bool check = false;
    bool force = false;
};

// Runs one flow; the hint is for a result that isn't 0.
std::function<void()> flow(const std::string &name, const std::string &hint, const std::function<int()> &call)
{
    return [=] {
        learn_own_number();
        const int result = call();
        if (result != KESTA_OK) {
            fail_call("copy-failed", "The copy " + name + " failed with result " + std::to_string(result) + ".", hint);
        }
    };
}

std::string slot_in_force(bool accept)
{
    return accept ? require_slot(accept_slot(), "accept") : require_slot(backup_slot(), "backup");
}

// What is copied over another archive has to be whole: the one that is lost may be the last good one.
void require_whole_archive(const char *path)
{
    const ArchiveEvidence evidence = evidence_of_file(path);
    if (evidence.state == CopyState::damaged) {
        throw Failure(Exit::no, "damaged-archive",
                      std::string(path) + " is damaged, and is copied over nothing: " + evidence.reason + ".",
                      "Bring a whole one there first: 'kestactl verify' shows which place has one. To copy it all "
                      "the same, give --force.");
    }
    require_whole(evidence, path);
}

// Whether a slot holds an archive that would be missed.
bool holds_another_archive(const std::string &slot)
{
    const ArchiveEvidence held = evidence_of_slot(slot);
    return held.good() && !held.same_bytes(evidence_of_file(flash_backup));
}

// Flash tells its version, and the backup area that of its slot.
void require_not_older(const std::string &slot)
{
    int flash = -1;
    (void)kestal_read_flash_version_file(&flash, KESTA_FLASH_VERSION);  // then it stays -1
    const int backup = kestal_read_version_nolock(KESTA_VER_AREA_BACKUP, learn_own_number(), KESTA_VERSION_BY_MODE);
    if (flash <= 0 && backup > 0 && holds_another_archive(slot)) {
        throw Failure(Exit::no, "unknown-version",
                      "Which version flash holds is not recorded, and slot " + slot + " holds version " +
                          std::to_string(backup) + ", whole.",
                      "See 'kestactl verify' for which is right. To overwrite the slot all the same, give --force.");
    }
    if (flash > 0 && backup > 0 && is_older_version(flash, backup) && holds_another_archive(slot)) {
        throw Failure(Exit::no, "older-version",
                      "Flash holds version " + std::to_string(flash) + ", and slot " + slot + " the newer version " +
                          std::to_string(backup) + ", whole.",
                      "Bring the slot to flash instead: kestactl restore GROUP --switch-only. To overwrite the newer "
                      "one all the same, give --force.");
    }
}

// Of the merge cache nothing tells a version but what is recorded of its bytes: one that a merge has changed has none, and
// is no older one.
void require_merged_not_older(const std::string &slot)
{
    const ArchiveEvidence merged = evidence_of_file(merge_backup);
    const std::vector<int> recorded = recorded_versions(merged.sha256);
    const int accepted = kestal_read_version_nolock(KESTA_VER_AREA_ACCEPT, learn_own_number(), KESTA_VERSION_BY_MODE);
    const bool older =
        accepted > 0 && !recorded.empty() &&
        std::all_of(recorded.begin(), recorded.end(), [&](int version) { return is_older_version(version, accepted); });
    if (!older) {
        return;
    }
    const ArchiveEvidence held = evidence_of_slot(slot);
    if (held.good() && !held.same_bytes(merged)) {
        throw Failure(Exit::no, "older-version",
                      "The merge cache holds version " + std::to_string(recorded.front()) + ", and slot " + slot +
                          " the newer accepted version " + std::to_string(accepted) + ", whole.",
                      "To accept what was saved last, run: kestactl accept. To overwrite the newer one all the same, "
                      "give --force.");
    }
}

Plan plan_backup2tmp(const CopyOptions &options)
{
    check_group(options.group);
    const std::string slot = slot_in_force(options.accept);
    const std::string to = options.check ? cache_check : cache_backup;
    std::vector<std::string> writes{to};
    if (!options.check) {
        writes.push_back(KESTA_TMP_CACHE " (the unpacked files)");
    }
    Plan plan;
    plan.verb = "copy backup2tmp";
    plan.replaces = {{to, Replacing::by_rename}};
    plan.json = {{"from", slot}, {"to", to}, {"unpack", !options.check}};
    plan.steps.push_back(
        {"bring slot " + slot + " to " + to + (options.check ? "" : " and unpack it there"), writes,
         flow("backup2tmp", "Part of it may have been done: check the slot, the space in /tmp and --trace 1.",
              [options] {
                  return kestal_backup2tmp(options.group.c_str(), options.accept, nullptr,
                                           options.check ? check_mode : unpack_mode);
              })});
    return plan;
}

Plan plan_cntbackup2tmp(const CopyOptions &options)
{
    check_group(options.group);
    const std::string from = options.accept ? flash_accept : flash_backup;
    require_file(from, save_hint);
    Plan plan;
    plan.verb = "copy cntbackup2tmp";
    plan.replaces = {{cache_backup, Replacing::in_place}};
    plan.json = {{"from", from}, {"to", cache_backup}};
    plan.steps.push_back({"copy " + from + " to " + cache_backup,
                          {cache_backup},
                          flow("cntbackup2tmp", "Check the space in /tmp and --trace 1.",
                               [options] { return kestal_cntbackup2tmp(options.group.c_str(), options.accept); })});
    return plan;
}

Plan plan_cntbackup2backup(const CopyOptions &options)
{
    require_writable();
    require_file(flash_backup, save_hint);
    const std::string slot = slot_in_force(false);
    if (!options.force) {
        require_whole_archive(flash_backup);
        require_not_older(slot);
    }
    Plan plan;
    plan.shared = true;
    plan.verb = "copy cntbackup2backup";
    plan.replaces = {{place_of_slot(slot), Replacing::in_place}};
    plan.json = {{"from", flash_backup}, {"to", slot}};
    plan.steps.push_back({std::string("copy ") + flash_backup + " to slot " + slot,
                          {"system backup area: " + slot},
                          flow("cntbackup2backup",
                               "The slot keeps its old contents unless the write had begun: check "
                               "the space of the system backup area and --trace 1.",
                               [] { return kestal_cntbackup2backup(); })});
    return plan;
}

Plan plan_merge_file2accept(const CopyOptions &options)
{
    if (!options.slot.empty()) {
        check_slot(options.slot);
    }
    require_writable();
    require_file(merge_backup, "A restore with an update script, or a merge, puts it there.");
    if (!options.force) {
        require_whole_archive(merge_backup);
    }
    const std::string slot = options.slot.empty() ? slot_in_force(true) : options.slot;
    if (!options.force && slot == accept_slot()) {
        require_merged_not_older(slot);
    }
    Plan plan;
    plan.shared = true;
    plan.verb = "copy merge-file2accept";
    plan.replaces = {{place_of_slot(slot), Replacing::in_place}};
    plan.json = {{"from", merge_backup}, {"to", slot}};
    plan.steps.push_back(
        {std::string("copy ") + merge_backup + " to slot " + slot,
         {"system backup area: " + slot},
         flow("merge-file2accept", "Check the space of the system backup area and --trace 1.", [options] {
             std::array<char, KESTA_AREA_NAME_SIZE> name{};
             memcpy(name.data(), options.slot.data(), options.slot.size());
             return kestal_merge_file2accept(name.data());
         })});
    return plan;
}

// In InitConf boot mode the flow first brings the backup slot to flash, if the disk is there.
Plan plan_backup2copy(const CopyOptions &options)
{
    check_group(options.group);
    require_writable();
    const std::string script = KESTA_GROUP_DIRECTORY + options.group + "/" KESTA_COPY_SCRIPT;
    require_file(script, "The group needs a copy script of that name.");
    const bool initconf = kestal_get_cnt_num_from_cpinfo(KESTA_CPINFO_BOOT_MODE) == KESTA_BOOT_INITCONF;
    std::vector<std::string> writes{"whatever the group's copy script writes"};
    std::string what = "run " + script;
    if (initconf) {
        const std::string slot = slot_in_force(false);
        what = "bring slot " + slot + " to " + cache_backup + " and " + flash_backup + ", then " + what;
        writes.insert(writes.begin(), {cache_backup, flash_backup});
    }
    Plan plan;
    if (initconf) {
        plan.verb = "copy backup2copy";
        plan.replaces = {{cache_backup, Replacing::by_rename}, {flash_backup, Replacing::by_rename}};
    }
    plan.json = {{"script", script}, {"initconf", initconf}};
    plan.steps.push_back({what, writes,
                          flow("backup2copy", "Look at --trace 2, and run the script by hand.",
                               [options] { return kestal_backup2copy(options.group.c_str()); })});
    return plan;
}

using Planner = Plan (*)(const CopyOptions &);

Command add_verb(const Command &copy, Globals &globals, Action &action, const char *verb, const char *description,
                 const std::shared_ptr<CopyOptions> &options, Planner planner)
{
    const Command command = copy.add_subcommand(verb, description);
    add_keep_options(command, globals);
    add_dry_run(command, globals);
    command.callback([&action, options, planner] {
        action = [options, planner](const Globals &given) {
            return carry_out(planner(*options), given);
        };
    });
    return command;
}

}  // namespace

void add_copy(const Command &app, Globals &globals, Action &action)
{
    const Command copy = app.add_subcommand("copy", "Move archives between the storage places");
    copy.require_subcommand();
    auto options = std::make_shared<CopyOptions>();

    Command verb = add_verb(copy, globals, action, "backup2tmp", "System backup area to the tmp cache, unpacked there",
                            options, plan_backup2tmp);
    verb.add_option("GROUP", options->group, "Group name");
    verb.add_flag("--accept", options->accept, "Take the accept slot, not the backup slot");
    verb.add_flag("--check", options->check, "Make check.tar.Z, and don't unpack it");
    add_examples(verb,
                 "  kestactl copy backup2tmp\n"
                 "  kestactl copy backup2tmp --accept --check");

    verb = add_verb(copy, globals, action, "cntbackup2tmp", "Flash directory to the tmp cache", options,
                    plan_cntbackup2tmp);
    verb.add_option("GROUP", options->group, "Group name");
    verb.add_flag("--accept", options->accept, "Take accept.tar.Z, not backup.tar.Z");
    add_examples(verb, "  kestactl copy cntbackup2tmp --accept");

    verb = add_verb(copy, globals, action, "cntbackup2backup",
                    "Flash directory to the backup slot of the system backup area", options, plan_cntbackup2backup);
    verb.add_flag("--force", options->force,
                  "Also copy a damaged archive, or overwrite a newer version or one that can't be told from it");
    add_lock_rule(verb, globals);
    add_examples(verb,
                 "  kestactl copy cntbackup2backup --dry-run\n"
                 "  kestactl copy cntbackup2backup");

    verb = add_verb(copy, globals, action, "merge-file2accept",
                    "Merge cache to the accept slot of the system backup area", options, plan_merge_file2accept);
    verb.add_option("--slot", options->slot, "Write this slot, not the accept slot in force");
    verb.add_flag("--force", options->force, "Also copy a damaged archive");
    add_lock_rule(verb, globals);
    add_examples(verb, "  kestactl copy merge-file2accept --dry-run");

    verb = add_verb(copy, globals, action, "backup2copy",
                    "Run the group's copy script; in InitConf boot mode fill flash first", options, plan_backup2copy);
    verb.add_option("GROUP", options->group, "Group name").required();
    add_examples(verb, "  kestactl copy backup2copy network --dry-run");
    add_copy_archive(copy, globals, action);
    add_examples(copy,
                 "  kestactl copy cntbackup2backup\n"
                 "  kestactl copy backup2tmp --accept --check\n"
                 "  kestactl copy backup2copy network --dry-run");
}

}  // namespace kestactl
