// kestactl nv init, clear, flags and sync: the NV image as a whole.
#include <kesta/kesta.h>
#include <stddef.h>

#include <memory>
#include <optional>

#include "appliance_state.h"
#include "block_value.h"
#include "command.h"
#include "image_fields.h"
#include "inner_lock_holders.h"
#include "lock_state.h"

namespace kestactl {
namespace {

// ------------------------------------------------------------------------------- init and clear

struct EraseOptions {
    bool yes = false;
    bool keep_data = false;
};

// What clearing loses, one line a field.
std::vector<std::string> contents(const std::vector<char> &image)
{
    std::vector<std::string> lines;
    for (const ImageField &field : image_fields()) {
        const std::vector<char> bytes = bytes_of(field, image);
        if (field.offset >= offsetof(KESTA_VOLATILE, cnttbl) && !all_zero(bytes)) {
            lines.push_back("NV memory, " + field.block.name + ": " + shown(decoded(field.block, bytes)) + " is lost");
        }
    }
    return lines;
}

// An image in use is not erased under those that use it. Without its stamp it is no image, and what
// stands where the locks would be says nothing.
void require_unlocked(const std::vector<char> &image)
{
    if (!is_stamped(image)) {
        return;
    }
    const LockState locks = read_lock_state();
    if (!locks.held.empty()) {
        refuse_locked("The NV image is in use.", locks, locks.held.front().controller);
    }
    if (const std::string holders = inner_lock_text(); !holders.empty()) {
        throw Failure(Exit::locked, "inner-lock-held",
                      "The NV image is in use: its inner lock is held by " + holders + ".",
                      "A holder that died is cleared by the next waiter after 30 seconds: run "
                      "'kestactl lock check', then this command again.");
    }
}

void clear_data()
{
    if (kestal_set_to_nvdata() != KESTA_OK) {
        fail_call("write-failed", "The NV image was not cleared.",
                  "Look at --trace 1 for the failed call, and check the storage firmware.");
    }
}

void stamp_header()
{
    if (kestal_set_magic_to_nv_header() != KESTA_OK) {
        fail_call("write-failed", "The header of the NV image was not written.",
                  "Look at --trace 1 for the failed call, and run the command again.");
    }
}

Plan plan_erase(const EraseOptions &options, bool stamps)
{
    require_writable();
    const std::vector<char> image = read_image();
    Plan plan;
    plan.shared = true;  // also where there is no stamp: a lock that is garbage is ignored by name
    plan.json["stamped"] = is_stamped(image);
    plan.json["lost"] = Json::array();
    if (!options.keep_data) {
        require_unlocked(image);
        const std::vector<std::string> lost = contents(image);
        plan.json["lost"] = lost;
        plan.steps.push_back({"clear everything behind the header of the NV image", lost, clear_data});
    }
    if (stamps) {
        plan.steps.push_back({"stamp the header", {"NV memory, magic: ENVV, layout version 2"}, stamp_header});
    }
    return plan;
}

Result erase(const EraseOptions &options, bool stamps, const Globals &globals)
{
    const Plan plan = plan_erase(options, stamps);
    const std::size_t lost = plan.json["lost"].size();
    if (!globals.dry_run && lost > 0) {
        confirm("This erases the NV image that all controllers share: " + std::to_string(lost) +
                    " fields that hold something.",
                options.yes);
    }
    Result result = carry_out(plan, globals);
    if (!globals.dry_run && !options.keep_data) {
        result.text +=
            "Next: 'kestactl repair' brings the mirrored items back from the system backup "
            "area, if it is good.\n";
    }
    return result;
}

// ------------------------------------------------------------------------------- flags and sync

struct FlagOptions {
    std::optional<int> synced;
    std::optional<int> req;
};

constexpr int flag_lowest = -128;
constexpr int flag_highest = 127;

void check_flags(int result, const std::string &what)
{
    if (result != KESTA_OK) {
        fail_call("flags-failed", what, "Look at --trace 1 for the failed call, and try again.");
    }
}

void set_flags(FlagOptions options)
{
    const int rw = KESTA_SYNC_WRITE | (options.synced ? KESTA_SYNC_SYNCED : 0) | (options.req ? KESTA_SYNC_REQ : 0);
    check_flags(kestal_flag_of_sync_nonvolatile(rw, options.synced ? &*options.synced : nullptr,
                                                options.req ? &*options.req : nullptr, learn_own_number()),
                "The synchronisation flags were not written.");
}

Result show_flags()
{
    int synced = 0;
    int req = 0;
    check_flags(kestal_flag_of_sync_nonvolatile(KESTA_SYNC_READ | KESTA_SYNC_SYNCED | KESTA_SYNC_REQ, &synced, &req,
                                                learn_own_number()),
                "The synchronisation flags could not be read.");
    Result result;
    result.text = "synced  " + std::to_string(synced) + "\nreq     " + std::to_string(req) + "\n";
    result.json = {{"synced", synced}, {"req", req}};
    return result;
}

Result flags(const FlagOptions &options, const Globals &globals)
{
    if (!options.synced && !options.req) {
        return show_flags();
    }
    require_writable();
    learn_own_number();
    Step step{"set the synchronisation flags", {}, [options] {
                  set_flags(options);
              }};
    Plan plan;
    plan.shared = true;
    if (options.synced) {
        step.writes.push_back("NV memory, synced: " + std::to_string(*options.synced));
        plan.json["synced"] = *options.synced;
    }
    if (options.req) {
        step.writes.push_back("NV memory, req: " + std::to_string(*options.req));
        plan.json["req"] = *options.req;
    }
    plan.steps.push_back(step);
    return carry_out(plan, globals);
}

void rewrite_regions()
{
    const int own = learn_own_number();
    kesta_clear_cause();
    if (kestal_sync_all_nonvolatile(own) != KESTA_OK) {
        fail_call("sync-failed", "NV memory was not rewritten whole.",
                  "Nothing is lost: each transfer is whole. Look at --trace 1, and try again.");
    }
    if (kesta_last_cause()->kind == KESTA_CAUSE_MEMORY) {  // the call tells of it nowhere else
        throw Failure(Exit::platform, "no-memory", "NV memory was not rewritten: no memory.",
                      "Free some memory, and try again.");
    }
}

Plan plan_sync()
{
    require_writable();
    learn_own_number();
    Plan plan;
    plan.shared = true;
    plan.steps.push_back({"rewrite NV memory as it is, so that the storage firmware passes it on",
                          {"NV memory, region 0: 32768 bytes", "NV memory, region 2: 32768 bytes"},
                          rewrite_regions});
    return plan;
}

// --------------------------------------------------------------------------------- the options

void add_erasing(const Command &nv, Globals &globals, Action &action)
{
    auto options = std::make_shared<EraseOptions>();
    const Command init = nv.add_subcommand("init", "Make a new NV image: clear it, and stamp its header");
    init.add_flag("--yes", options->yes, "Don't ask before something is lost");
    init.add_flag("--keep-data", options->keep_data, "Stamp the header only");
    add_lock_rule(init, globals);
    add_dry_run(init, globals);
    init.callback([&action, options] {
        action = [options](const Globals &given) {
            return erase(*options, true, given);
        };
    });
    add_examples(init,
                 "  kestactl nv init --dry-run\n"
                 "  kestactl nv init --yes");

    const Command clear = nv.add_subcommand("clear", "Clear the NV image, and keep its header and the flags");
    clear.add_flag("--yes", options->yes, "Don't ask before something is lost");
    add_lock_rule(clear, globals);
    add_dry_run(clear, globals);
    clear.callback([&action, options] {
        action = [options](const Globals &given) {
            return erase(*options, false, given);
        };
    });
    add_examples(clear,
                 "  kestactl nv clear --dry-run\n"
                 "  kestactl nv clear --yes");
}

void add_flags(const Command &nv, Globals &globals, Action &action)
{
    auto options = std::make_shared<FlagOptions>();
    const Command command = nv.add_subcommand("flags", "Show or set the synchronisation flags");
    command.add_option("--synced", options->synced, "New value of the flag synced")
        .in_range(flag_lowest, flag_highest)
        .option_text("-128..127");
    command.add_option("--req", options->req, "New value of the flag req")
        .in_range(flag_lowest, flag_highest)
        .option_text("-128..127");
    add_lock_rule(command, globals);
    add_dry_run(command, globals);
    command.callback([&action, options] {
        action = [options](const Globals &given) {
            return flags(*options, given);
        };
    });
    add_examples(command,
                 "  kestactl nv flags\n"
                 "  kestactl nv flags --synced 1 --req 0");
}

void add_sync(const Command &nv, Globals &globals, Action &action)
{
    const Command command =
        nv.add_subcommand("sync", "Rewrite NV memory as it is, so that the storage firmware passes it on");
    add_lock_rule(command, globals);
    add_dry_run(command, globals);
    command.callback([&action] {
        action = [](const Globals &given) {
            return carry_out(plan_sync(), given);
        };
    });
    add_examples(command,
                 "  kestactl nv sync --dry-run\n"
                 "  kestactl nv sync");
}

}  // namespace

void add_nv_image(const Command &nv, Globals &globals, Action &action)
{
    add_erasing(nv, globals, action);
    add_flags(nv, globals, action);
    add_sync(nv, globals, action);
    add_nv_dump(nv, action);
}

}  // namespace kestactl
