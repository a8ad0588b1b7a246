// kestactl nv verify and kestactl repair: NV memory and the system backup area held against each other,
// and one made to hold what the other does.
#include <kesta/kesta.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <optional>

#include "appliance_state.h"
#include "block_value.h"
#include "command.h"
#include "mirror.h"
#include "overview.h"

namespace kestactl {
namespace {

struct RepairOptions {
    std::optional<Side> from;
};

const std::map<std::string, Side> sides{{"memory", Side::memory}, {"disk", Side::disk}};

Json value_of(const MirroredItem &item, Side side)
{
    if (side == Side::memory && !item.block->in_memory) {
        return nullptr;
    }
    const Content &content = item.at(side);
    return content ? decoded(*item.block, *content) : Json(nullptr);
}

std::string shown_at(const MirroredItem &item, Side side)
{
    if (side == Side::memory && !item.block->in_memory) {
        return "-";
    }
    const Content &content = item.at(side);
    if (!content) {
        return "(unreadable)";
    }
    if (item.block->kind == BlockKind::bytes && all_zero(*content)) {
        return "(zeros)";
    }
    const std::string text = shown(decoded(*item.block, *content));
    return text.empty() ? "(empty)" : text;
}

std::string describe_side(const MirrorState &state, Side side)
{
    return std::string(side == Side::memory ? "NV memory" : "The system backup area") +
           (state.valid(side) ? " is valid: both of its slot names are slots."
                              : " is NOT valid: it does not name a backup and an accept slot.");
}

// What to do about the two places, in one sentence.
std::string advice(const MirrorState &state)
{
    if (!state.differ()) {
        return state.valid(Side::memory) ? "Both places agree."
                                         : "Both places agree, but name no slots: set them with 'kestactl slot switch "
                                           "--backup " KESTA_SLOT0 " --accept " KESTA_SLOT1 "'.";
    }
    const bool memory = state.valid(Side::memory);
    const bool disk = state.valid(Side::disk);
    if (memory != disk) {
        return std::string("Mend it with 'kestactl repair': it copies ") + name_of(memory ? Side::memory : Side::disk) +
               " to " + name_of(memory ? Side::disk : Side::memory) + ".";
    }
    if (memory && state.disk_lacks_only()) {
        return "The system backup area lacks items: 'kestactl repair' adds them from NV memory, and "
               "nothing is lost.";
    }
    return memory ? "Both are valid, and differ: say which one is right with 'kestactl repair --from "
                    "memory' or '--from disk', after a look with --dry-run."
                  : "Neither is valid: 'kestactl verify' tells by the archives which slot is which, and gives the "
                    "command that names them.";
}

std::string table_row(const std::string &mark, const std::string &name, std::string memory, std::size_t width,
                      const std::string &disk)
{
    char start[64];
    snprintf(start, sizeof(start), "%-2s  %-19s ", mark.c_str(), name.c_str());
    memory.resize(width, ' ');
    return start + memory + "  " + disk + "\n";
}

Result verify()
{
    const MirrorState state = read_mirror();
    Result result;
    result.exit = state.differ() || !state.valid(Side::memory) ? Exit::no : Exit::done;
    result.json["items"] = Json::array();
    std::size_t width = strlen("NV memory");
    for (const MirroredItem &item : state.items) {
        width = std::max(width, shown_at(item, Side::memory).size());
    }
    result.text = table_row("", "item", "NV memory", width, "system backup area");
    for (const MirroredItem &item : state.items) {
        result.text += table_row(item.differs() ? "!!" : "", item.block->name, shown_at(item, Side::memory), width,
                                 shown_at(item, Side::disk));
        result.json["items"].push_back({{"block", item.block->id},
                                        {"name", item.block->name},
                                        {"memory", value_of(item, Side::memory)},
                                        {"disk", value_of(item, Side::disk)},
                                        {"differs", item.differs()}});
    }
    result.json["memory_valid"] = state.valid(Side::memory);
    result.json["disk_valid"] = state.valid(Side::disk);
    result.json["differ"] = state.differ();
    result.json["advice"] = advice(state);
    result.text +=
        describe_side(state, Side::memory) + "\n" + describe_side(state, Side::disk) + "\n" + advice(state) + "\n";
    return result;
}

// ------------------------------------------------------------------------------------ repair

struct Winner {
    Side side;
    std::string why;
};

Winner choose(const MirrorState &state, const RepairOptions &options)
{
    const bool memory = state.valid(Side::memory);
    const bool disk = state.valid(Side::disk);
    if (options.from) {
        const Side from = *options.from;
        if (!state.valid(from)) {
            throw Failure(
                Exit::no, "not-valid", describe_side(state, from) + " Nothing is copied from it.",
                state.valid(other(from))
                    ? "The other place is valid: leave out --from."
                    : "'kestactl verify' tells by the archives which slot is which, and gives the command that "
                      "names them.");
        }
        return {from, "you said so"};
    }
    if (memory != disk) {
        return {memory ? Side::memory : Side::disk, "it names both slots, and the other place does not"};
    }
    if (memory && state.disk_lacks_only()) {
        return {Side::memory, "the other place only lacks items that it holds"};
    }
    if (memory) {
        throw Failure(Exit::no, "both-valid", "NV memory and the system backup area are both valid, and differ.",
                      "Say which one is right: look at 'kestactl repair --from memory --dry-run' and "
                      "'--from disk --dry-run', which show what would be lost.");
    }
    throw Failure(
        Exit::no, "none-valid", "Neither NV memory nor the system backup area names a backup and an accept slot.",
        "'kestactl verify' tells by the archives which slot is which, and gives the command that names them.");
}

// What a copy needs has to be readable before anything is overwritten.
void require_source(const std::vector<Replacement> &changes, Side from)
{
    for (const Replacement &change : changes) {
        if (change.value.empty()) {
            throw Failure(Exit::platform, "unreadable-item",
                          "The item " + change.item->block->name + " can't be read from " + name_of(from) +
                              ", which is to be copied.",
                          "Nothing was changed. Write that item by itself with 'kestactl nv write " +
                              change.item->block->name + " VALUE', then repair again.");
        }
    }
}

void repair_locked(const MirrorState &planned, Side from)
{
    if (!(read_mirror() == planned)) {
        throw Failure(Exit::no, "changed-meanwhile",
                      "Nothing was changed: another program has changed the items meanwhile.",
                      "Look at 'kestactl nv verify', and run the command again.");
    }
    std::string failed;
    if (copy_items(planned, from, failed) != KESTA_OK) {
        fail_call("repair-failed",
                  std::string("The repair is not finished: ") + failed + " could not be copied to " +
                      name_of(other(from)) + ".",
                  "That place does not pass for a good one, so nothing wrong is taken from it. Look "
                  "at --trace 1, mend the cause, and run the command again.");
    }
    const MirrorState after = read_mirror();
    if (after.differ() || !after.valid(Side::memory)) {
        throw Failure(Exit::platform, "repair-failed",
                      "The copies were made, but the two places still don't hold the same.",
                      "Look at 'kestactl nv verify'.");
    }
}

// The lock keeps versions and names from changing under the copies.
void repair_under_lock(const MirrorState &planned, Side from)
{
    under_inner_lock("Nothing was changed: the inner lock could not be taken.", [&] {
        repair_locked(planned, from);
        return "The repair is done";
    });
}

std::string place_of(const MirroredItem &item, Side side)
{
    const std::string what = item.block->name + ": " + shown_at(item, side) + " -> " + shown_at(item, other(side));
    return std::string(side == Side::memory ? "NV memory, " : "system backup area, ") + what;
}

Json loss_json(const Replacement &change, Side to)
{
    return {{"block", change.item->block->id},
            {"name", change.item->block->name},
            {"lost", value_of(*change.item, to)},
            {"becomes", decoded(*change.item->block, change.value)}};
}

Plan plan_repair(const RepairOptions &options)
{
    learn_own_number();
    require_writable();
    const MirrorState state = read_mirror();
    Plan plan;
    plan.shared = true;
    if (!state.differ() && state.valid(Side::memory)) {
        plan.json = {{"winner", nullptr}, {"why", "both places agree"}, {"changes", Json::array()}};
        return plan;
    }
    const Winner winner = choose(state, options);
    const Side to = other(winner.side);
    const std::vector<Replacement> changes = replacements(state, winner.side);
    require_source(changes, winner.side);
    plan.json = {{"winner", winner.side == Side::memory ? "memory" : "disk"},
                 {"why", winner.why},
                 {"changes", Json::array()}};
    Step step(std::string("copy ") + name_of(winner.side) + " to " + name_of(to) + " (" + winner.why + ")", {},
              [state, from = winner.side] { repair_under_lock(state, from); });
    for (const Replacement &change : changes) {
        plan.json["changes"].push_back(loss_json(change, to));
        step.writes.push_back(change.item->block->in_memory
                                  ? place_of(*change.item, to)
                                  : "system backup area, " + change.item->block->name + ": (unreadable) -> 0");
    }
    plan.steps.push_back(step);
    return plan;
}

Result repair(const RepairOptions &options, const Globals &globals)
{
    const Plan plan = plan_repair(options);
    Result result = carry_out(plan, globals);
    if (plan.steps.empty()) {
        result.text = "Nothing to repair: NV memory and the system backup area agree.\n";
    }
    if (!globals.dry_run) {
        for (const Step &step : plan.steps) {
            for (const std::string &change : step.writes) {
                result.text += "  " + change + "\n";
            }
        }
    }
    return result;
}

}  // namespace

Result show_mirror() { return verify(); }

void add_nv_verify(const Command &nv, Action &action)
{
    const Command command =
        nv.add_subcommand("verify", "Hold the twelve mirrored items in NV memory and on disk against each other");
    command.callback([&action] {
        action = [](const Globals &) {
            return verify();
        };
    });
    add_examples(command,
                 "  kestactl nv verify\n"
                 "  kestactl nv verify --json");
}

void add_repair(const Command &app, Globals &globals, Action &action)
{
    auto options = std::make_shared<RepairOptions>();
    const Command command =
        app.add_subcommand("repair", "Copy the mirrored items from the good one of NV memory and disk to the other");
    command
        .add_choice("--from", options->from, sides, "The place that is right; needed where both are valid, and differ")
        .option_text("memory|disk");
    add_lock_rule(command, globals);
    add_dry_run(command, globals);
    command.callback([&action, options] {
        action = [options](const Globals &given) {
            return repair(*options, given);
        };
    });
    add_examples(command,
                 "  kestactl repair --dry-run\n"
                 "  kestactl repair\n"
                 "  kestactl repair --from disk");
}

}  // namespace kestactl
