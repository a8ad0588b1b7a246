#include "restore_files.h"

#include <memory>

#include "compared_sides.h"
#include "difference_rows.h"
#include "kept_generations.h"
#include "kesta/paths.h"
#include "restore.h"
#include "unfinished_restore.h"

namespace kestactl {
namespace {

std::vector<std::string> places_of(const FileChanges &changes)
{
    std::vector<std::string> places(changes.replaced.begin(), changes.replaced.end());
    for (const std::string &path : changes.adjusted) {
        places.push_back(path + " (owner and mode only)");
    }
    for (const std::string &path : changes.removed) {
        places.push_back(path + " (removed: it was gone when the environment was saved)");
    }
    return places;
}

std::vector<std::string> version_places(const Restore &restore)
{
    std::vector<std::string> places{"version area current", KESTA_VERSION_FILE};
    if (restore.request.on_reboot) {
        places.insert(places.end(), {"version area reboot", KESTA_REBOOT_FILE});
    }
    return places;
}

std::vector<Script> scripts(const RestoreFilesOptions &options, const char *kind)
{
    return scripts_of(options.request.group, "restore", kind);
}

// The ones of the end: for a system that goes on, or for one that is rebooted.
const char *last_kind(const RestoreFilesOptions &options)
{
    return options.request.on_reboot ? "re-post-script" : "post-script";
}

Plan plan_of(const std::shared_ptr<Restore> &restore, const RestoreFilesOptions &options, Work &work)
{
    const bool whole = restore->request.only.empty();
    const auto look = [&work] {
        stop_if_asked(work);
    };
    Plan plan;
    plan.long_work = true;
    plan.json = {{"group", options.request.group}, {"from", restore->source.side}, {"slot", restore->source.slot}};
    plan.kept = std::make_shared<KeepReport>();
    add_script_steps(plan, work, scripts(options, "pre-script"), options.work.scripts);
    if (whole && restore->source.flash) {
        plan.steps.push_back(publishing(work, "bring slot " + restore->source.slot + " to flash",
                                        {restore->source.flash}, [restore, &work, look, kept = plan.kept] {
                                            put_slot_to_flash(*restore, work.keep_rule, *kept, look);
                                        }));
    }
    plan.steps.push_back(
        publishing(work, "put the new files beside the old ones",
                   {unfinished_restore_note, "a hidden file beside each one"},
                   [restore, &work, look, kept = plan.kept] { put_beside(*restore, work.keep_rule, *kept, look); }));
    plan.steps.push_back(publishing(work, "let them take their places", places_of(restore->changes),
                                    [restore] { put_in_place(*restore); }));
    plan.steps.push_back(publishing(work, "set links, owners, groups and modes of the definition",
                                    {"the group's files and links"}, [restore] { apply_definition(*restore); }));
    if (whole && restore->has_version()) {
        plan.steps.push_back(publishing(work, "record the version", version_places(*restore),
                                        [restore, &work] { work.version = record_versions(*restore); }));
    }
    plan.steps.push_back(
        publishing(work, "note that it is complete", {unfinished_restore_note}, [restore] { end_restore(*restore); }));
    announce_scripts(plan, work, scripts(options, last_kind(options)));
    return plan;
}

void describe_end(const Restore &restore, Result &result)
{
    const FileChanges &changes = restore.changes;
    const auto count = [](const std::set<std::string> &paths) {
        return std::to_string(paths.size());
    };
    const bool has_number = restore.request.only.empty() && restore.has_version();
    if (!has_number) {
        result.json["version"] = nullptr;
    }
    result.json["replaced"] = changes.replaced;
    result.json["adjusted"] = changes.adjusted;
    result.json["removed"] = changes.removed;
    result.json["foreign"] = restore.files.foreign;
    result.json["reboot_needed"] = needs_reboot(restore);
    result.text += "Restored " + restore.request.group + " from " + restore.source.name() + ", " +
                   (!restore.request.only.empty() ? restore.request.only + " only"
                    : has_number                  ? "version " + result.json["version"].dump()
                                                  : "of no known version") +
                   ": " + count(changes.replaced) + " replaced, " + count(changes.adjusted) +
                   " given their owner and mode, " + count(changes.removed) + " removed.\n";
    if (restore.files.foreign != 0) {
        result.text += std::to_string(restore.files.foreign) +
                       " members of the archive are not of this group: they were left alone.\n";
    }
    if (needs_reboot(restore)) {
        result.text += "Reboot this controller: the definition, or --on-reboot, asks for it.\n";
    }
}

// As kestactl diff tells it, from the files of now to those of the archive; with --only, of that path alone.
void describe_difference(const Restore &restore, Result &result)
{
    // The work is over, and with it what stops it when a signal comes: one ends the command at once now.
    const Archive archive{restore.archive.contents, restore.archive.name, restore.archive.limits};
    std::vector<FileDifference> found = differences({live_side}, {restore.source.name(), archive}, *restore.definition);
    // What is here and not in the archive stays, unless a path of the group was gone as a whole.
    std::erase_if(found, [&restore](const FileDifference &one) {
        return !restore.paths->wants(one.path.substr(1)) ||
               (one.what.front() == "removed" && !restore.changes.removed.contains(one.path));
    });
    result.json["differences"] = to_json(found);
    result.text += found.empty() ? "The files are the same already.\n"
                                 : "From the files of now to " + restore.source.name() + ":\n" + text_of(found);
}

}  // namespace

Result restore_files(const RestoreFilesOptions &options, const Globals &globals)
{
    (void)read_definition(options.request.group);  // before any lock is taken
    std::shared_ptr<Restore> restore;
    Result result = carry_out_locked(
        {KESTA_LOCK_TYPE1, options.request.group, options.work.wait},
        [&](Work &work) {
            restore = prepare_restore(options.request, !globals.dry_run, [&work] { stop_if_asked(work); });
            return plan_of(restore, options, work);
        },
        [&](Work &work) { run_last(scripts(options, last_kind(options)), options.work.scripts, work); }, globals);
    if (globals.dry_run) {
        describe_difference(*restore, result);
    } else {
        describe_end(*restore, result);
    }
    return result;
}

}  // namespace kestactl
