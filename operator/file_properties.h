// The links, owners, groups and modes that a definition gives to its files: read and applied as the
// library does, but by descriptor, so that nobody's link is followed to another file.
#pragma once

#include <kesta/kesta.h>

#include <span>
#include <string>
#include <vector>

namespace engine {

// The files of a definition that count: those before the first empty path.
std::span<const KESTA_BACKUP_FILE_PATH> files_of(const KESTA_BACKUP_FILE &definition);

// What applying the definition changes at a file, in words. Throws Failure: it is not there, unless
// it may be gone, or something in its way may not be touched.
std::vector<std::string> property_changes(const KESTA_BACKUP_FILE_PATH &file, bool may_be_gone);

// Links, owner, group, mode: in this order, and the first failure ends it. Throws Failure.
void apply_properties(const KESTA_BACKUP_FILE_PATH &file, bool may_be_gone);

// Why a value of a definition can't be applied on this controller: what follows it in a sentence. Empty if it
// can.
std::string fault_of_user(const std::string &user);
std::string fault_of_group(const std::string &group);
std::string fault_of_mode(const std::string &mode);

}  // namespace engine
