// A generation: a whole archive that was replaced or overwritten, and kept. The archive itself is a plain file; what
// stands here is known of it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace engine {

// Who did something to an archive, when and why.
struct GenerationChange {
    std::int64_t time = 0;  // seconds since 1970
    int controller = -1;    // 0 to 3; -1: unknown
    std::string user;
    std::string verb;          // of kestactl: "save"; empty: unknown
    std::string comment;       // what --comment said
    std::uint64_t change = 0;  // its number in the log of changes; 0: none
};

struct Generation {
    std::string sha256;  // of the archive; its name in the catalogue
    std::uint64_t bytes = 0;
    std::uint64_t order = 0;  // higher ones were kept later, whatever the clock said
    int version = 0;          // 0: unknown
    // Recorded for these bytes when they were made. Otherwise it is what the place said that held them.
    bool version_recorded = false;
    std::string group;                      // empty: unknown
    std::vector<std::string> places;        // that held it: paths, and "slot:kesta_backup0"
    GenerationChange kept;                  // what replaced it, last
    std::optional<GenerationChange> saved;  // what made it, where that was recorded
    std::uint64_t number = 0;               // what operators call it: its first order, and no other one's ever after
};

// Never dropped, whatever the limits are. Nothing: they can't be told, and then nothing is dropped at all.
struct VersionsInForce {
    std::optional<int> accepted;
    std::optional<int> running;

    bool known() const { return accepted && running; }
};

// What is shown of a checksum.
std::string short_sum(const std::string &sha256);

// "generation 3f1c09aa27b4 (network, version 7)"
std::string name_of(const Generation &generation);

}  // namespace engine
