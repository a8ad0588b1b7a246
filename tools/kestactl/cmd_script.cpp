// kestactl script: the scripts that change files on another controller.
#include <kesta/kesta.h>

#include <algorithm>
#include <memory>

#include "appliance_state.h"
#include "command.h"
#include "names.h"

namespace kestactl {
namespace {

struct ScriptOptions {
    std::string controller;
    std::vector<std::string> files;
};

// The paths go into command lines as they are.
void check_file(const std::string &path)
{
    const bool plain = std::all_of(path.begin(), path.end(), [](unsigned char c) {
        return isalnum(c) || c >= 0x80 || std::string("_./+,:@%=-").find(static_cast<char>(c)) != std::string::npos;
    });
    if (path.empty() || path[0] != '/' || !plain) {
        throw Failure(Exit::usage, "bad-path", "'" + path + "' can't be sent.",
                      "Give an absolute path without blanks and shell characters.");
    }
}

int other_controller(const std::string &name)
{
    const int controller = parse_controller(name);
    if (controller == learn_own_number()) {
        throw Failure(Exit::usage, "own-controller", name + " is this controller.", "Name another one.");
    }
    return controller;
}

Plan plan_script(const std::string &what, const std::string &path, int controller, const std::function<int()> &make)
{
    Plan plan;
    plan.json = {{"controller", controller}, {"script", path}};
    plan.steps.push_back({"write " + path + ", which " + what, {path}, [path, make] {
                              if (make() != KESTA_OK) {
                                  fail_call("script-failed", path + " was not written whole.",
                                            "Check the space in /var/run, and the length of the "
                                            "list: 511 characters for a step.");
                              }
                          }});
    return plan;
}

Result finish(const Plan &plan, const std::string &path, const Globals &globals)
{
    Result result = carry_out(plan, globals);
    if (!globals.dry_run) {
        result.text += "Run it with: /bin/sh " + path + "\n";
    }
    return result;
}

Result samefiles(const ScriptOptions &options, const Globals &globals)
{
    std::for_each(options.files.begin(), options.files.end(), check_file);
    const int controller = other_controller(options.controller);
    std::vector<std::string> files = options.files;
    std::vector<char *> names;
    names.reserve(files.size());
    for (std::string &file : files) {
        names.push_back(file.data());
    }
    const int last = static_cast<int>(names.size()) - 1;
    return finish(plan_script("brings " + joined(options.files) + " to CNT" + std::to_string(controller),
                              KESTA_SAMEFILE_SCRIPT, controller,
                              [&] { return kestal_make_rsh_samefilename_script(controller, names.data(), last); }),
                  KESTA_SAMEFILE_SCRIPT, globals);
}

Result tarz(const ScriptOptions &options, const Globals &globals)
{
    const int controller = other_controller(options.controller);
    return finish(plan_script("copies accept.tar.Z over backup.tar.Z on CNT" + std::to_string(controller),
                              KESTA_TARZ_SCRIPT, controller, [=] { return kestal_make_rsh_tarz_script(controller); }),
                  KESTA_TARZ_SCRIPT, globals);
}

}  // namespace

void add_script(const Command &app, Globals &globals, Action &action)
{
    const Command script = app.add_subcommand("script", "Write scripts that change files on another controller");
    script.require_subcommand();
    auto options = std::make_shared<ScriptOptions>();

    Command command = script.add_subcommand("samefiles", "Files of this controller to the same paths of another");
    command.add_option("CONTROLLER", options->controller, "CNT0 to CNT3").required();
    command.add_option("FILE", options->files, "Absolute paths").required();
    add_dry_run(command, globals);
    command.callback([&action, options] {
        action = [options](const Globals &given) {
            return samefiles(*options, given);
        };
    });
    add_examples(command, "  kestactl script samefiles CNT1 /etc/hosts /etc/resolv.conf");

    command = script.add_subcommand("tarz", "Another controller's accept.tar.Z over its backup.tar.Z");
    command.add_option("CONTROLLER", options->controller, "CNT0 to CNT3").required();
    add_dry_run(command, globals);
    command.callback([&action, options] {
        action = [options](const Globals &given) {
            return tarz(*options, given);
        };
    });
    add_examples(command, "  kestactl script tarz CNT1 --dry-run");
    add_examples(script,
                 "  kestactl script samefiles CNT1 /etc/hosts /etc/resolv.conf\n"
                 "  kestactl script tarz CNT2 --dry-run");
}

}  // namespace kestactl
