// kestactl version: the version numbers of saved environments.
#include <kesta/kesta.h>
#include <limits.h>
#include <climits>

#include <array>
#include <charconv>
#include <memory>

#include "appliance_state.h"
#include "causes.h"
#include "command.h"
#include "names.h"
#include "overview.h"
#include "version_numbers.h"

namespace kestactl {
namespace {

struct Area {
    const char *name;
    int area;
    bool per_controller;
    const char *meaning;
};
constexpr std::array<Area, 6> areas{{
    {"numbering", KESTA_VER_AREA_NUMBERING, false, "the latest number handed out"},
    {"accept", KESTA_VER_AREA_ACCEPT, false, "the accepted environment"},
    {"current", KESTA_VER_AREA_CURRENT, true, "what a controller runs with"},
    {"backup", KESTA_VER_AREA_BACKUP, false, "the backup"},
    {"status", KESTA_VER_AREA_STATUS, true, "a controller's status"},
    {"reboot", KESTA_VER_AREA_REBOOT, false, "in force after a reboot"},
}};

struct FlashFile {
    const char *name;
    int type;
};
constexpr std::array<FlashFile, 4> flash_files{{
    {"flash", KESTA_FLASH_VERSION},
    {"flash-reboot", KESTA_FLASH_REBOOT},
    {"flash-cntno", KESTA_FLASH_CNTNO},
    {"flash-rebootcount", KESTA_FLASH_REBOOTCOUNT},
}};

struct VersionOptions {
    std::string area;
    std::string controller;
    std::string value;
    int backup = -1;
    int numbering = -1;
};

const Area *find_area(const std::string &name)
{
    for (const Area &area : areas) {
        if (name == area.name) {
            return &area;
        }
    }
    return nullptr;
}

const FlashFile *find_flash_file(const std::string &name)
{
    for (const FlashFile &file : flash_files) {
        if (name == file.name) {
            return &file;
        }
    }
    return nullptr;
}

std::string known_areas()
{
    std::string text;
    for (const Area &area : areas) {
        text += (text.empty() ? "" : ", ") + std::string(area.name);
    }
    for (const FlashFile &file : flash_files) {
        text += ", " + std::string(file.name);
    }
    return text;
}

int parse_version(const std::string &text)
{
    int number = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end || number < 0) {
        throw Failure(Exit::usage, "bad-version", "'" + text + "' is no version number.",
                      "A version is 1 to 2147483647, or 0 for never set.");
    }
    return number;
}

// -1: not available.
int read_flash(const FlashFile &file)
{
    int version = -1;
    if (kestal_read_flash_version_file(&version, file.type) != KESTA_OK) {
        throw Failure(Exit::platform, "flash-unreadable",
                      std::string("The flash file of ") + file.name + " can't be read, or holds no number.",
                      "Look at --trace 1 for its path; 'kestactl version set " + std::string(file.name) +
                          " NUMBER' writes it anew.");
    }
    return version;
}

std::string shown(int version) { return version < 0 ? "none" : std::to_string(version); }

void add_row(Result &result, const std::string &name, const Json &value, const char *meaning)
{
    char line[128];
    const std::string text = value.is_null() ? "unknown" : shown(value.get<int>());
    snprintf(line, sizeof(line), "%-18s %-11s %s\n", name.c_str(), text.c_str(), meaning);
    result.text += line;
    result.json[name] = value.is_null() || value.get<int>() < 0 ? Json(nullptr) : value;
}

Json read_area(const Area &area, int controller, bool &failed)
{
    const std::optional<int> version = number_in_area(area.area, controller);
    failed = failed || !version;
    return version ? Json(*version) : Json(nullptr);
}

}  // namespace

Result show_versions()
{
    Result result;
    bool failed = false;
    for (const Area &area : areas) {
        for (int i = 0; i < (area.per_controller ? KESTA_CONTROLLERS : 1); ++i) {
            const std::string name =
                area.per_controller ? std::string(area.name) + "-cnt" + std::to_string(i) : area.name;
            add_row(result, name, read_area(area, i, failed), area.meaning);
        }
    }
    for (const FlashFile &file : flash_files) {
        Json value;
        try {
            value = read_flash(file);
        } catch (const Failure &) {
            failed = true;
        }
        add_row(result, file.name, value, "this controller's own flash");
    }
    if (failed) {
        result.text += "Some numbers are missing: they could not be read (--trace 1).\n";
        result.exit = Exit::platform;
    }
    return result;
}

namespace {

int controller_of(const VersionOptions &options, const Area &area)
{
    if (options.controller.empty()) {
        return learn_own_number();
    }
    const int controller = parse_controller(options.controller);
    if (!area.per_controller) {
        throw Failure(Exit::usage, "no-controller", std::string(area.name) + " is one number for all controllers.",
                      "Leave out --controller.");
    }
    (void)learn_own_number();
    return controller;
}

void set_area(const Area &area, int controller, int value)
{
    ask_both_places();
    if (kestal_set_version(area.area, controller, value) != KESTA_OK) {
        fail_call("set-failed", std::string("The number of ") + area.name + " was not set in every place.",
                  "Look at --trace 1 for the place that failed.");
    }
}

Plan plan_set(const VersionOptions &options)
{
    const int value = parse_version(options.value);
    require_writable();
    Plan plan;
    plan.shared = find_flash_file(options.area) == nullptr;
    plan.json = {{"area", options.area}, {"value", value}};
    if (const FlashFile *file = find_flash_file(options.area)) {
        plan.steps.push_back({"write " + std::to_string(value) + " to the flash file of " + file->name,
                              {std::string("flash file of ") + file->name},
                              [=] {
                                  if (kestal_set_flash_version_file(value, file->type) != KESTA_OK) {
                                      fail_call("set-failed", "The flash file was not written.",
                                                "Look at --trace 1, and at the space of /etc.");
                                  }
                              }});
        return plan;
    }
    const Area *area = find_area(options.area);
    if (!area) {
        throw Failure(Exit::usage, "bad-area", "There is no version area '" + options.area + "'.",
                      "The areas are " + known_areas() + ".");
    }
    const int controller = controller_of(options, *area);
    const std::string name =
        area->per_controller ? std::string(area->name) + " of CNT" + std::to_string(controller) : area->name;
    plan.steps.push_back({"set " + name + " to " + std::to_string(value), {"version area " + name}, [=] {
                              set_area(*area, controller, value);
                          }});
    return plan;
}

Result next_command(const Globals &globals)
{
    require_writable();
    const int own = learn_own_number();
    int next = version_after(latest_number(own));
    Plan plan;
    plan.shared = true;
    plan.steps.push_back({"hand out number " + std::to_string(next), {"version area numbering"}, [&] {
                              next = hand_out_version(own);
                          }});
    Result result = carry_out(plan, globals);
    result.json["version"] = next;
    if (!globals.dry_run) {
        result.text = std::to_string(next) + "\n";
    }
    return result;
}

// The flash file is looked at first: the library clears the own inner-lock slot where it can't be
// read.
Result compare(const VersionOptions &options)
{
    const int own = learn_own_number();
    const int current = read_flash(flash_files[0]);
    const int result = kestal_compare_version(own, options.backup, options.numbering);
    Result shown_result;
    shown_result.json = {{"controller", own}, {"current", current < 0 ? Json(nullptr) : Json(current)}};
    switch (result) {
    case KESTA_VERSION_SAME:
        shown_result.text = "same: this controller runs with the backup's version.\n";
        shown_result.json["newer"] = "same";
        return shown_result;
    case KESTA_VERSION_BACKUP_NEWER:
        shown_result.text =
            "backup: the backup is the one to use; this controller (version " + shown(current) + ") is older.\n";
        shown_result.json["newer"] = "backup";
        break;
    case KESTA_VERSION_CURRENT_NEWER:
        shown_result.text =
            "current: this controller's own configuration (version " + shown(current) + ") is newer than the backup.\n";
        shown_result.json["newer"] = "current";
        break;
    default:
        fail_call("compare-failed", "The versions can't be compared.", "Look at --trace 1.");
    }
    shown_result.exit = Exit::no;
    return shown_result;
}

void add_set(const Command &version, Globals &globals, Action &action, const std::shared_ptr<VersionOptions> &options)
{
    const Command set = version.add_subcommand("set", "Set the number of an area");
    set.add_option("AREA", options->area, known_areas()).required();
    set.add_option("VALUE", options->value, "1 to 2147483647, or 0 for never set").required();
    set.add_option("--controller", options->controller, "Whose, for current and status; else this controller's")
        .option_text("CNTn");
    add_lock_rule(set, globals);
    add_dry_run(set, globals);
    add_examples(set,
                 "  kestactl version set backup 41\n"
                 "  kestactl version set current 41 --controller CNT2\n"
                 "  kestactl version set flash 41 --dry-run");
    set.callback([&action, options] {
        action = [options](const Globals &given) {
            return carry_out(plan_set(*options), given);
        };
    });
}

void add_compare(const Command &version, Action &action, const std::shared_ptr<VersionOptions> &options)
{
    const Command command =
        version.add_subcommand("compare",
                               "Tell which is newer, the backup or what this controller runs with; exit code 1 "
                               "if they differ");
    command.add_option("--backup", options->backup, "Version of the backup; else it is read").in_range(0, INT_MAX);
    command.add_option("--numbering", options->numbering, "Latest number; else it is read").in_range(0, INT_MAX);
    command.callback([&action, options] {
        action = [options](const Globals &) {
            return compare(*options);
        };
    });
    add_examples(command,
                 "  kestactl version compare\n"
                 "  kestactl version compare --backup 41 --numbering 42");
}

}  // namespace

void add_version(const Command &app, Globals &globals, Action &action)
{
    const Command version = app.add_subcommand("version", "Version numbers of saved environments");
    version.require_subcommand();
    auto options = std::make_shared<VersionOptions>();
    const Command show_command = version.add_subcommand("show", "Show the numbers of all areas and of the flash files");
    show_command.callback([&action] {
        action = [](const Globals &) {
            return show_versions();
        };
    });
    add_examples(show_command, "  kestactl version show");
    add_set(version, globals, action, options);
    const Command next = version.add_subcommand("next", "Hand out the next number, and print it");
    add_lock_rule(next, globals);
    add_dry_run(next, globals);
    add_examples(next,
                 "  kestactl version next --dry-run\n"
                 "  kestactl version next");
    next.callback([&action] {
        action = [](const Globals &given) {
            return next_command(given);
        };
    });
    add_compare(version, action, options);
    add_examples(version,
                 "  kestactl version show\n"
                 "  kestactl version compare\n"
                 "  kestactl version next");
}

}  // namespace kestactl
