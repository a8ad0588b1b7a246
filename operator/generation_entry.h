// What the catalogue notes of each archive, as JSON: beside every generation, and in one file for the archives that
// were saved here and are still in force.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "generation.h"

namespace engine {

std::string entry_text(const Generation &generation);

// Nothing: the text is no entry of that archive.
std::optional<Generation> parse_entry(const std::string &text, const std::string &sha256);

// An archive that was made and tested here: what is known of its bytes from then on.
struct SavedArchive {
    std::string sha256;
    std::uint64_t bytes = 0;
    int version = 0;
    std::string group;
    GenerationChange saved;
};

std::string saved_text(const std::vector<SavedArchive> &archives);

struct SavedArchives {
    std::vector<SavedArchive> archives;
    bool whole = true;  // false: from somewhere on the text can't be understood, and what stood there is known no more
};

SavedArchives parse_saved(const std::string &text);

}  // namespace engine
