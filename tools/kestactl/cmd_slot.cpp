// kestactl slot: which archive slot is the backup, which the accepted environment.
#include <kesta/kesta.h>
#include <string.h>

#include <memory>

#include "appliance_state.h"
#include "command.h"
#include "find_slots.h"
#include "names.h"

namespace kestactl {
namespace {

struct SwitchOptions {
    std::string backup;
    std::string accept;
    bool memory_only = false;
};

std::string or_nothing(const std::string &name) { return name.empty() ? "(none)" : name; }

Result show()
{
    const std::string backup = backup_slot();
    const std::string accept = accept_slot();
    const bool good = SlotNames{backup, accept}.valid();
    Result result;
    result.exit = good ? Exit::done : Exit::no;
    result.text = "backup  " + or_nothing(backup) + "\naccept  " + or_nothing(accept) + "\n";
    if (!good) {
        result.text +=
            "These are not two different slots: 'kestactl verify' tells by the archives which slot is "
            "which, and gives the command that names them.\n";
    }
    result.json = {{"backup", backup}, {"accept", accept}, {"valid", good}};
    return result;
}

// A field of 32 bytes, as the library takes it.
using NameField = std::array<char, KESTA_AREA_NAME_SIZE>;

NameField field_of(const std::string &name)
{
    NameField field{};
    memcpy(field.data(), name.data(), std::min(name.size(), field.size() - 1));
    return field;
}

void change(const std::string &accept, const std::string &backup, int flag)
{
    ask_both_places();
    NameField accept_field = field_of(accept);
    NameField backup_field = field_of(backup);
    learn_own_number();
    if (kestal_change_address(accept_field.data(), backup_field.data(), flag) != KESTA_OK) {
        const bool accept_first = flag == KESTA_OFF;
        fail_call("switch-failed",
                  accept_first ? "The slots were not switched: the accept name could not be "
                                 "written to every place."
                               : "The switch is half done: the accept name is " + accept +
                                     ", the backup name could not be written to every place.",
                  "Run 'kestactl slot switch --backup " + backup + " --accept " + accept +
                      "' again; with --memory-only if the system backup area is gone.");
    }
}

// Without names the two slots change places.
void complete_names(SwitchOptions &options)
{
    if (options.backup.empty() && options.accept.empty()) {
        const std::string backup = require_slot(backup_slot(), "backup");
        const std::string accept = require_slot(accept_slot(), "accept");
        options.backup = accept;
        options.accept = backup;
        return;
    }
    const auto other = [](const std::string &name) {
        return std::string(name == KESTA_SLOT0 ? KESTA_SLOT1 : KESTA_SLOT0);
    };
    if (options.backup.empty()) {
        options.backup = other(options.accept);
    }
    if (options.accept.empty()) {
        options.accept = other(options.backup);
    }
}

Plan plan_switch(SwitchOptions options)
{
    for (const std::string *name : {&options.backup, &options.accept}) {
        if (!name->empty()) {
            check_slot(*name);
        }
    }
    learn_own_number();
    require_writable();
    if (options.memory_only) {
        use_memory_only();
    }
    complete_names(options);
    if (options.backup == options.accept) {
        throw Failure(Exit::usage, "same-slot", "Backup and accept can't be the same slot.",
                      "Name two different slots, or none to let them change places.");
    }
    const auto writes = [&](const char *mirror, int block) {
        std::vector<std::string> written_to{place_of_block(block)};
        if (!options.memory_only) {
            written_to.insert(written_to.begin(), std::string("system backup area: ") + mirror);
        }
        return written_to;
    };
    Plan plan;
    plan.shared = true;
    plan.json = {{"backup", options.backup}, {"accept", options.accept}};
    plan.steps.push_back(
        {"make " + options.accept + " the accept slot", writes("kesta_sysacpt", KESTA_BLOCK_ACCEPT_NAME), [options] {
             change(options.accept, options.backup, KESTA_OFF);
         }});
    plan.steps.push_back(
        {"make " + options.backup + " the backup slot", writes("kesta_sysback", KESTA_BLOCK_BACKUP_NAME), [options] {
             change(options.accept, options.backup, KESTA_ON);
         }});
    return plan;
}

}  // namespace

void add_slot(const Command &app, Globals &globals, Action &action)
{
    const Command slot = app.add_subcommand("slot", "Show and switch the archive slots in force");
    slot.require_subcommand();

    const Command show_command =
        slot.add_subcommand("show", "Show which slot is the backup and which the accepted one");
    show_command.callback([&action] {
        action = [](const Globals &) {
            return show();
        };
    });
    add_examples(show_command, "  kestactl slot show");

    auto options = std::make_shared<SwitchOptions>();
    const Command change_command = slot.add_subcommand("switch", "Let the slots change places, or set them by name");
    change_command.add_option("--backup", options->backup, "The new backup slot");
    change_command.add_option("--accept", options->accept, "The new accept slot");
    change_command.add_flag("--memory-only", options->memory_only,
                            "Write NV memory alone, e.g. while the system backup area is gone");
    add_lock_rule(change_command, globals);
    add_dry_run(change_command, globals);
    change_command.callback([&action, options] {
        action = [options](const Globals &given) {
            return carry_out(plan_switch(*options), given);
        };
    });
    const std::string examples =
        "  kestactl slot switch --dry-run\n"
        "  kestactl slot switch --backup kesta_backup0 --accept "
        "kesta_backup1";
    add_examples(change_command, examples);
    add_examples(slot, "  kestactl slot show\n" + examples);
}

}  // namespace kestactl
