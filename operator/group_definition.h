// The definition of a group, as the library reads it.
#pragma once

#include <kesta/kesta.h>

#include <memory>
#include <string>
#include <vector>

namespace engine {

using Definition = std::unique_ptr<KESTA_BACKUP_FILE>;

// Where a group has its definition.
std::string definition_of(const std::string &group);

// Throws Failure: no group of that name, or a definition that is refused.
Definition read_definition(const std::string &group);

// The groups that have a definition, be it refused, in the order of their names. Throws Failure.
std::vector<std::string> defined_groups();

// Whether files of the group may be missing: they are removed by a restore then.
bool may_be_gone(const KESTA_BACKUP_FILE &definition);

// One script of a definition.
struct Script {
    std::string command;
    int order;
};

// The scripts of a side ("backup", "restore") and kind ("pre-script", "post-script", "re-post-script"), in
// the order of their numbers; those of one number as they stand in the file. From the file itself: the
// library's record has one number for two kinds. Throws Failure.
std::vector<Script> scripts_of(const std::string &group, const std::string &side, const std::string &kind);

}  // namespace engine
