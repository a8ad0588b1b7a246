// A group's files saved, and the saved environment made the accepted one: each step of it.
//
// Who carries out the steps holds the command lock, and runs the definition's scripts before and behind them. The
// archive is made aside and tested, then it is in flash, then in its slot; its version is recorded last.
#pragma once

#include <functional>
#include <string>

#include "generations.h"

namespace engine {

// Whether the system backup area lacks some of the mirrored items: the library goes on without it there, and the new
// versions would be kept in NV memory only. Throws Failure: the two places do not name the same slots.
bool mirror_lacks_items();
// Adds these items. Throws Failure.
void complete_mirror();

// The archive that was made aside is known from here on: when it is replaced one day, it is kept with its version and
// group. Nothing is lost without that: what failed is noted in the report.
void note_what_is_saved(const std::string &group, int version, const std::string &slot, const KeepRule &rule,
                        KeepReport &report);

// Stores what flash has in the backup slot, and reads it back. Throws Failure.
void store_in_slot(const std::string &slot);

// The version of what was saved, in all its places. Throws Failure.
void record_saved_version(int version);

// What flash has, if it is whole and may become the accepted environment. Looks again and again, which may throw. Returns
// its checksum. Throws Failure.
std::string require_acceptable(const std::function<void()> &look);

// Stores what the merge cache has in the accept slot, and reads it back. Throws Failure.
void store_as_accepted(const std::string &slot);

// The backup's version becomes the accepted one's. Returns it. Throws Failure.
int record_accepted_version();

}  // namespace engine
