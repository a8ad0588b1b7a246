// kestactl diff: how a group's files differ between this system, the environments in force and what was kept.
#include <memory>

#include "command.h"
#include "compared_sides.h"
#include "difference_rows.h"
#include "group_definition.h"
#include "names.h"

namespace kestactl {
namespace {

struct DiffOptions {
    std::string group;
    std::vector<std::string> sides;
    std::string from;
    std::string to;
};

// Without names: what has changed here since the backup was made.
void settle_sides(DiffOptions &options)
{
    if (options.sides.size() > 2 || (!options.sides.empty() && !(options.from.empty() && options.to.empty()))) {
        throw Failure(Exit::usage, "too-many-sides", "Two sides are compared, named once.",
                      "Give FROM and TO behind the group, or --from and --to.");
    }
    if (!options.sides.empty()) {
        options.from = options.sides.front();
        options.to = options.sides.size() > 1 ? options.sides.back() : live_side;
    }
    options.from = options.from.empty() ? "backup" : options.from;
    options.to = options.to.empty() ? live_side : options.to;
    if (options.from == live_side && options.to == live_side) {
        throw Failure(Exit::usage, "same-side", "The files of this system are compared with themselves.",
                      "Name backup, accept or a generation as one side.");
    }
}

Result diff(DiffOptions options)
{
    settle_sides(options);
    std::vector<FileDifference> found;
    try {
        const Definition definition = read_definition(options.group);
        found = differences(side_named(options.from), side_named(options.to), *definition);
    } catch (const Failure &failure) {
        // 1 would tell that they differ, which nobody knows.
        throw Failure(failure.exit() == Exit::no ? Exit::platform : failure.exit(), failure.code(), failure.what(),
                      failure.hint());
    }
    Result result;
    result.exit = found.empty() ? Exit::done : Exit::no;
    result.json = {{"group", options.group},
                   {"from", options.from},
                   {"to", options.to},
                   {"differences", to_json(found)}};
    result.text = found.empty() ? "The files of " + options.group + " are the same.\n"
                                : "From " + options.from + " to " + options.to + ":\n" + text_of(found);
    return result;
}

}  // namespace

void add_diff(const Command &app, Action &action)
{
    auto options = std::make_shared<DiffOptions>();
    const Command command =
        app.add_subcommand("diff", "Show how a group's files differ; exit code 0 the same, 1 different, 4 unreadable");
    command.add_option("GROUP", options->group, "Group name").required();
    command.add_option("SIDE", options->sides, "From and to: live, backup, accept, or a generation of the history");
    command.add_option("--from", options->from, "The old side; else backup");
    command.add_option("--to", options->to, "The new side; else live: the files of this system");
    command.callback([&action, options] {
        action = [options](const Globals &) {
            return diff(*options);
        };
    });
    add_examples(command,
                 "  kestactl diff network\n"
                 "  kestactl diff network accept\n"
                 "  kestactl diff network 3 backup\n"
                 "  kestactl diff network --from accept --to live --json");
}

}  // namespace kestactl
