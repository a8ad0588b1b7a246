// The archive of a group's files: made from the running system, and tested before anything points
// at it.
#pragma once

#include <kesta/kesta.h>

#include <functional>
#include <string>
#include <vector>

#include "archive_members.h"
#include "beneath.h"

namespace engine {

// Looks at everything that would be saved. Returns the group's paths that are there, relative to
// the root. Throws Failure: a file is missing (where the group's operation does not allow that), or
// something could not be restored.
std::vector<std::string> collect(const KESTA_BACKUP_FILE &definition);

// Makes the archive, and holds every file in it against the system again, as a restore would: what
// it would not take is not saved. The file is on the disk then. Looks again and again, which may
// throw. Throws Failure; no half archive stays behind.
void make_archive(const KESTA_BACKUP_FILE &definition, const std::string &path, const std::function<void()> &look);

// The same, packed by a program that packs as bzip2 does, if that can; what it packed is tested like everything.
void make_archive(const KESTA_BACKUP_FILE &definition, const std::string &path, const std::function<void()> &look,
                  const std::string &program);

// An archive of whatever is given, packed by this process; it is on the disk then. It is asked for once more where a time
// lies before 1970. Throws Failure; no half archive stays
// behind.
using AddMember = std::function<void(const Member &member, const Descriptor &contents)>;
void make_archive_of(const std::string &path, const std::function<void()> &look,
                     const std::function<void(const AddMember &add)> &give);

}  // namespace engine
