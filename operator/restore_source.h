// What a restore brings back: the saved environment, the accepted one, or a generation.
#pragma once

#include <optional>
#include <string>

#include "archive_contents.h"
#include "generation.h"

namespace engine {

struct RestoreSource {
    std::string side;  // "backup", "accept", or "generation:SHA256"
    std::string slot;
    const char *flash;  // null: it is a generation, and stays where it is
    int version_area;
    std::optional<Generation> generation = std::nullopt;

    std::string name() const { return generation ? name_of(*generation) : "the " + side; }
};

// "backup", "accept", or the name of the slot that is one of them. Throw Failure, here and below.
RestoreSource named_source(const std::string &from);
RestoreSource source_of_generation(const std::string &name);

ArchiveContents contents_of(const RestoreSource &source);
int version_of(const RestoreSource &source);

}  // namespace engine
