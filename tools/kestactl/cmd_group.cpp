// kestactl group: the definitions of backup groups.
#include <kesta/kesta.h>

#include <memory>

#include "appliance_state.h"
#include "command.h"
#include "definition_check.h"
#include "file_properties.h"
#include "group_definition.h"
#include "kesta/paths.h"
#include "names.h"
#include "printable.h"

namespace kestactl {
namespace {

// A path, or the name of a group.
std::string file_of(const std::string &file_or_group)
{
    const bool is_file =
        file_or_group.find('/') != std::string::npos || file_or_group.rfind(".xml") != std::string::npos;
    if (is_file) {
        return file_or_group;
    }
    check_group(file_or_group);
    return definition_of(file_or_group);
}

// ---------------------------------------------------------------------------------------- check

Result check(const std::string &file_or_group)
{
    const std::string path = file_of(file_or_group);
    CheckedDefinition checked = check_definition(path);
    if (path != file_or_group && checked.accepted() && checked.id != file_or_group) {
        checked.findings.push_back({1, true, "the id is \"" + checked.id + "\", and the group is " + file_or_group});
    }
    Result result;
    result.json = {{"file", path}, {"id", checked.id}, {"accepted", checked.accepted()}};
    result.json["findings"] = Json::array();
    for (const Finding &finding : checked.findings) {
        result.text += path + ":" + std::to_string(finding.line) + ": " + (finding.error ? "error: " : "note: ") +
                       finding.text + "\n";
        result.json["findings"].push_back(
            {{"line", finding.line}, {"kind", finding.error ? "error" : "note"}, {"text", finding.text}});
    }
    result.text += checked.accepted() ? path + ": accepted\n" : path + ": refused\n";
    result.exit = checked.accepted() ? Exit::done : Exit::no;
    return result;
}

// ---------------------------------------------------------------------------------------- show

Json scripts_json(const KESTA_BACKUP_FILE_SCRIPT_SUB (&slots)[KESTA_DEFINITION_SCRIPTS])
{
    Json all = Json::array();
    for (const KESTA_BACKUP_FILE_SCRIPT_SUB &slot : slots) {
        if (slot.pre_script[0] != '\0' || slot.post_script[0] != '\0' || slot.re_post_script[0] != '\0') {
            all.push_back({{"pre_script", slot.pre_script},
                           {"post_script", slot.post_script},
                           {"re_post_script", slot.re_post_script},
                           {"pre_order", slot.pre_order},
                           {"post_order", slot.post_order},
                           {"re_post_order", slot.re_post_order}});
        }
    }
    return all;
}

Json file_json(const KESTA_BACKUP_FILE_PATH &file)
{
    Json links = Json::array();
    for (const auto &link : file.linkpath) {
        if (link[0] != '\0') {
            links.push_back(link);
        }
    }
    return {{"path", file.pathname},        {"links", links},
            {"owner", file.owner},          {"group", file.group},
            {"mode", file.filemode},        {"cntmode", file.cntmode},
            {"rbmode", file.rbmode},        {"distribution", file.distribution},
            {"diffreboot", file.diffreboot}};
}

std::string or_dash(const char *text) { return *text != '\0' ? text : "-"; }

void show_scripts(Result &result, const char *side,
                  const KESTA_BACKUP_FILE_SCRIPT_SUB (&slots)[KESTA_DEFINITION_SCRIPTS], int reboot)
{
    result.text += std::string(side) + " scripts (reboot " + std::to_string(reboot) + "):\n";
    for (const KESTA_BACKUP_FILE_SCRIPT_SUB &slot : slots) {
        const std::pair<const char *, const char *> paths[] = {{"before", slot.pre_script},
                                                               {"after", slot.post_script},
                                                               {"again after", slot.re_post_script}};
        for (const auto &[when, path] : paths) {
            if (*path != '\0') {
                result.text += std::string("  ") + when + ": " + path + "\n";
            }
        }
    }
}

Result show(const std::string &group)
{
    const Definition definition = read_definition(group);
    Result result;
    result.json = {{"group", definition->groupname},
                   {"operation", definition->operation},
                   {"type", definition->type},
                   {"files", Json::array()}};
    result.text = "group      " + group + "\noperation  " + or_dash(definition->operation) + "\ntype       " +
                  or_dash(definition->type) + "\nfiles:\n";
    for (const KESTA_BACKUP_FILE_PATH &file : definition->setfile) {
        if (file.pathname[0] == '\0') {
            break;
        }
        result.json["files"].push_back(file_json(file));
        result.text += "  " + std::string(file.pathname) + "  owner " + or_dash(file.owner) + ", group " +
                       or_dash(file.group) + ", mode " + or_dash(file.filemode) + "\n";
        for (const auto &link : file.linkpath) {
            if (link[0] != '\0') {
                result.text += "    link " + std::string(link) + "\n";
            }
        }
    }
    const KESTA_BACKUP_FILE_SCRIPT &script = definition->script;
    result.json["backup"] = {{"reboot", script.back_reboot}, {"scripts", scripts_json(script.back_script)}};
    result.json["restore"] = {{"reboot", script.restore_reboot}, {"scripts", scripts_json(script.restore_script)}};
    show_scripts(result, "backup", script.back_script, script.back_reboot);
    show_scripts(result, "restore", script.restore_script, script.restore_reboot);
    return result;
}

// ---------------------------------------------------------------------------------------- list

Result list()
{
    Result result;
    result.json = {{"groups", Json::array()}};
    for (const std::string &group : defined_groups()) {
        std::string why;
        std::size_t files = 0;
        try {
            files = files_of(*read_definition(group)).size();
        } catch (const Failure &failure) {
            why = failure.what();
        }
        result.json["groups"].push_back({{"group", group},
                                         {"accepted", why.empty()},
                                         {"paths", files},
                                         {"why", why.empty() ? Json(nullptr) : Json(why)}});
        result.text += plain_text(group) + "  " +
                       (why.empty() ? std::to_string(files) + " paths" : "refused: " + plain_text(why)) + "\n";
    }
    if (result.text.empty()) {
        result.text = "No group is defined: " KESTA_GROUP_DIRECTORY "GROUP/" KESTA_DEFINITION_NAME " defines one.\n";
    }
    return result;
}

// ---------------------------------------------------------------------------------------- apply

void apply(const KESTA_BACKUP_FILE &definition)
{
    for (const KESTA_BACKUP_FILE_PATH &file : files_of(definition)) {
        apply_properties(file, may_be_gone(definition));
    }
}

// One step for each file that changes; the first one carries all of it out.
Plan plan_apply(const std::string &group, const KESTA_BACKUP_FILE &definition)
{
    Plan plan;
    plan.json = {{"group", group}};
    const auto add = [&](const std::string &what, const std::string &path) {
        const bool first = plan.steps.empty();
        plan.steps.push_back({what, {path}, [first, &definition] {
                                  if (first) {
                                      apply(definition);
                                  }
                              }});
    };
    for (const KESTA_BACKUP_FILE_PATH &file : files_of(definition)) {
        const std::vector<std::string> changes = property_changes(file, may_be_gone(definition));
        if (!changes.empty()) {
            std::string what = std::string(file.pathname) + ":";
            for (const std::string &change : changes) {
                what += (&change == &changes.front() ? " " : ", ") + change;
            }
            add(what, file.pathname);
        }
    }
    return plan;
}

Result apply_command(const std::string &group, const Globals &globals)
{
    require_writable();
    const Definition definition = read_definition(group);
    const Plan plan = plan_apply(group, *definition);
    Result result = carry_out(plan, globals);
    if (plan.steps.empty()) {
        result.text = "Every file is as the definition says.\n";
    }
    return result;
}

}  // namespace

void add_group(const Command &app, Globals &globals, Action &action)
{
    const Command group = app.add_subcommand("group", "Definitions of backup groups");
    group.require_subcommand();
    auto name = std::make_shared<std::string>();

    Command command =
        group.add_subcommand("check", "Say everything that is wrong with a definition; exit code 1 if it is refused");
    command.add_option("FILE|GROUP", *name, "A file, or a group with its define.xml in place").required();
    command.callback([&action, name] {
        action = [name](const Globals &) {
            return check(*name);
        };
    });
    add_examples(command,
                 "  kestactl group check network\n"
                 "  kestactl group check ./define.xml --json");

    command = group.add_subcommand("list", "List the groups that are defined");
    command.callback([&action] {
        action = [](const Globals &) {
            return list();
        };
    });
    add_examples(command, "  kestactl group list");

    command = group.add_subcommand("show", "Show a definition");
    command.add_option("GROUP", *name, "Group name").required();
    command.callback([&action, name] {
        action = [name](const Globals &) {
            return show(*name);
        };
    });
    add_examples(command, "  kestactl group show network");

    command = group.add_subcommand("apply", "Put links, owners, groups and modes of the group's files in order");
    command.add_option("GROUP", *name, "Group name").required();
    add_dry_run(command, globals);
    command.callback([&action, name] {
        action = [name](const Globals &given) {
            return apply_command(*name, given);
        };
    });
    add_examples(command, "  kestactl group apply network --dry-run");
    add_examples(group,
                 "  kestactl group list\n"
                 "  kestactl group check network\n"
                 "  kestactl group show network --json\n"
                 "  kestactl group apply network --dry-run");
}

}  // namespace kestactl
