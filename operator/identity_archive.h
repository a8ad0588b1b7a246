// Whether an identity can be carried into a saved environment: what the platform's script that opens it would refuse is
// told before anything is begun.
#pragma once

#include <string>

#include "archive_contents.h"

namespace engine {

// The parts of the controllers are unpacked and changed by root: only folders and plain files are taken from them, and
// from the whole archive no devices, no names that lead out of it, and no programs with their owner's rights. The name is
// what the archive is told of as. Throws Failure.
void check_identity_archive(const ArchiveContents &contents, const std::string &name);

}  // namespace engine
