// kestactl identity show and set: who a controller is, in every place that keeps it.
#include <kesta/kesta.h>
#include <string.h>

#include <algorithm>
#include <iostream>
#include <memory>

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
#include "overview.h"
#include "printable.h"
#include "trace_capture.h"
#include "whole_file.h"

namespace kestactl {
namespace {

// ------------------------------------------------------------------------------------------ show

using Member = std::optional<std::string> Identity::*;

struct ValueName {
    Member member;
    const char *key;
    const char *title;
};
constexpr std::array<ValueName, 3> value_names{{{&Identity::wwn, "wwn", "WWN"},
                                                {&Identity::serialno, "serialno", "serial number"},
                                                {&Identity::guid, "guid", "GUID"}}};

std::string or_none(const std::string &text) { return text.empty() ? "(none)" : text; }

using Identities = std::array<Identity, identity_places.size()>;

Identities read_all()
{
    Identities all;
    for (std::size_t i = 0; i < all.size(); ++i) {
        all[i] = read_identity(identity_places[i].place);
    }
    return all;
}

bool differs(const Identities &all, Member member)
{
    const std::string *first = nullptr;
    for (const Identity &identity : all) {
        const std::optional<std::string> &value = identity.*member;
        if (value && first && *value != *first) {
            return true;
        }
        first = value && !first ? &*value : first;
    }
    return false;
}

void add_value(Result &result, const Identities &all, const ValueName &name)
{
    const bool differ = differs(all, name.member);
    Json json{{"differs", differ}};
    result.text += std::string(differ ? "!! " : "   ") + name.title + "\n";
    for (std::size_t i = 0; i < all.size(); ++i) {
        const std::optional<std::string> &value = all[i].*name.member;
        json[identity_places[i].key] = value ? Json(*value) : Json(nullptr);
        char line[96];
        snprintf(line, sizeof(line), "     %-20s %s\n", identity_places[i].title,
                 value ? or_none(*value).c_str() : "-");
        result.text += line;
    }
    result.json["values"][name.key] = json;
    result.json["differ"] = result.json["differ"].get<bool>() || differ;
}

void add_host_name(Result &result, int controller)
{
    const std::string name = first_line(KESTA_NODENAME_FILE);
    const std::string by_wwn = host_name_by(*read_identity(Place::eeprom).wwn, controller);
    const bool by_hand = !name.empty() && name != by_wwn;
    result.text += "   host name             " + or_none(name) +
                   (by_hand ? "  (set by hand: by its WWN it would be " + by_wwn + ")" : "") + "\n";
    result.json["host_name"] = {{"name", name}, {"by_wwn", by_wwn}, {"by_hand", by_hand}};
}

Result show()
{
    const int controller = learn_own_number();
    const Identities all = read_all();
    Result result;
    result.json = {{"controller", controller}, {"values", Json::object()}, {"differ", false}};
    result.text = "Controller " + controller_name(controller) + "\n";
    for (const ValueName &name : value_names) {
        add_value(result, all, name);
    }
    add_host_name(result, controller);
    if (result.json["differ"].get<bool>()) {
        result.exit = Exit::no;
        result.text +=
            "Values differ. Which place is right, and the command for it: after a change of "
            "the board 'kestactl identity carry vpd-to-flash' (the board is right), on its "
            "other controller 'carry cnt0-to-cnt1', otherwise 'carry vpd-to-disk' (the disk "
            "is right).\n";
    }
    return result;
}

// ------------------------------------------------------------------------------------------- set

struct SetOptions {
    std::string wwn;
    std::string serialno;
    std::string guid;
    std::vector<std::string> places;
};

bool chosen(const SetOptions &options, const std::string &place)
{
    return options.places.empty() ||
           std::find(options.places.begin(), options.places.end(), place) != options.places.end();
}

Plan plan_set(const SetOptions &options)
{
    Identity identity;
    if (!options.wwn.empty()) {
        check_wwn(options.wwn);
        identity.wwn = options.wwn;
    }
    if (!options.serialno.empty()) {
        check_serialno(options.serialno);
        identity.serialno = options.serialno;
    }
    if (!options.guid.empty()) {
        check_guid(options.guid);
        identity.guid = options.guid;
    }
    if (identity == Identity()) {
        throw Failure(Exit::usage, "nothing-given", "There is nothing to set.", "Give --wwn, --serialno or --guid.");
    }
    require_writable();
    learn_own_number();
    Plan plan;
    plan.shared = true;
    for (const ValueName &name : value_names) {
        const std::optional<std::string> &value = identity.*name.member;
        plan.json[name.key] = value ? Json(*value) : Json(nullptr);
    }
    const auto add = [&](const char *place, bool keeps_any, const char *what, const char *writes,
                         void (*set)(const Identity &)) {
        if (chosen(options, place) && keeps_any) {
            plan.steps.push_back({what, {writes}, [identity, set] {
                                      set(identity);
                                  }});
        }
    };
    add("eeprom", identity.wwn || identity.serialno, "set the eeprom", KESTA_BOOT_ENVIRONMENT, set_eeprom);
    add("vpd", true, "set the VPD tool", "the board's VPD", set_vpd);
    add("flash", identity.wwn || identity.guid, "write the flash files", KESTA_WWN_FILE ", " KESTA_GUID_FILE,
        set_flash);
    add("nv", true, "write the NV image", "NV memory and system backup area: blocks 201 to 203", set_image);
    if (plan.steps.empty()) {
        throw Failure(Exit::usage, "nothing-given", "None of these places keeps what is given.",
                      "The eeprom keeps no GUID, the flash files keep no serial number.");
    }
    return plan;
}

}  // namespace

Result show_identity() { return show(); }

void add_identity(const Command &app, Globals &globals, Action &action)
{
    const Command identity = app.add_subcommand("identity", "Show, set and carry WWN, serial number and GUID");
    identity.require_subcommand();
    const Command showing = identity.add_subcommand("show", "Show every place that keeps them, side by side");
    showing.callback([&action] {
        action = [](const Globals &) {
            return show();
        };
    });
    add_examples(showing,
                 "  kestactl identity show\n"
                 "  kestactl identity show --json");

    auto options = std::make_shared<SetOptions>();
    const Command setting = identity.add_subcommand("set", "Set values by hand, in all places or some");
    setting.add_option("--wwn", options->wwn, "16 characters");
    setting.add_option("--serialno", options->serialno, "16 characters");
    setting.add_option("--guid", options->guid, "36 characters, 8-4-4-4-12 hexadecimal digits");
    setting.add_option("--in", options->places, "Only there: eeprom, vpd, flash or nv; repeatable")
        .one_of({"eeprom", "vpd", "flash", "nv"})
        .option_text("PLACE");
    add_lock_rule(setting, globals);
    add_dry_run(setting, globals);
    setting.callback([&action, options] {
        action = [options](const Globals &given) {
            return carry_out(plan_set(*options), given);
        };
    });
    add_examples(setting,
                 "  kestactl identity set --wwn 500000E0D0123400 --dry-run\n"
                 "  kestactl identity set --serialno KESTA00000000042 --in eeprom --in nv");
    add_identity_carry(identity, globals, action);
    add_examples(identity,
                 "  kestactl identity show\n"
                 "  kestactl identity carry vpd-to-flash --dry-run");
}

}  // namespace kestactl
