// The generations of this controller: every whole archive that kestactl replaces or overwrites is kept first, as a
// plain file on flash. docs/generations.md tells operators.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "generation_store.h"

namespace engine {

// What whoever asks for a change says of the generations.
struct KeepRule {
    std::optional<std::uint64_t> keep;  // how many stay, instead of the setting; 0: nothing is kept
    std::string comment;
    // What mends only adds: nothing is dropped for the number and the bytes of the settings, unless 'keep' says so.
    bool only_adds = false;
    std::string source = {};  // the checksum of what takes the place of what is kept: never dropped for it

    bool keeps() const { return keep != std::uint64_t{0}; }
};

// Throws Failure: not one line of printable text, or too long.
void check_comment(const std::string &comment);

// How a place gets its new contents. A file that another one takes the place of may be kept as it is; one that is
// written is copied.
enum class Replacing { by_rename, in_place };

struct ReplacedPlace {
    std::string place;  // a path, or what place_of_slot says
    Replacing how = Replacing::in_place;
};

std::string place_of_slot(const std::string &slot);
// Nothing: the place is no slot.
std::optional<std::string> slot_of_place(const std::string &place);

// Keeps what these places hold, if it is whole; the verb is the one that will replace it. What is damaged is noted, what
// is absent is passed over. Looks again and again, which may throw. Throws Failure: something can't be read or can't be
// kept, and must not be overwritten.
KeepReport keep_replaced(
    const std::vector<ReplacedPlace> &places, const std::string &verb, const KeepRule &rule,
    const std::function<void()> &look = [] {});

// Does what writes to flash. Where the disk is full, the oldest generation is dropped, and it is done again; the one with
// the checksum 'source' stays.
void with_room_on_flash(KeepReport &report, const std::function<void()> &write, const std::string &source = {});

// The same for what can't be done again: drops the oldest ones until so many bytes are free, or none is left to drop.
void make_room_on_flash(KeepReport &report, std::uint64_t bytes);

// Notes an archive that was just made and tested: its version, its group, and who asked for it; whatever is kept of others,
// so that it need not be tested again when it is replaced. Returns its checksum. Throws Failure.
std::string note_saved(const std::string &path, const std::string &group, int version, const KeepRule &rule);

// What was noted of archives that were saved here, one for each version of the same bytes. Throws Failure.
std::vector<SavedArchive> saved_archives();

// What is kept, newest first. Throws Failure: the catalogue can't be read.
std::vector<Generation> generations();

// Why the limits never drop the generation with this checksum, as the end of a sentence; empty: they may. Throws Failure.
std::string why_generation_stays(const std::string &sha256);

// Takes it out of the catalogue. Throws Failure.
void forget_generation(const std::string &sha256);

// Every one read whole and held against its checksum, entries and files against each other. Throws Failure.
GenerationsCheck check_generations();

}  // namespace engine
