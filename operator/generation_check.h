// Whether what was kept is still what it was: files against entries, and both against each other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "generation.h"
#include "generation_folder.h"

namespace engine {

enum class GenerationFault { damaged, unreadable, no_file, no_entry };

struct GenerationProblem {
    GenerationFault fault = GenerationFault::damaged;
    std::string sha256;
    std::string path;
    std::string text;  // one sentence of what is wrong, and one of what to do
};

struct GenerationsCheck {
    std::size_t good = 0;
    std::uint64_t bytes = 0;  // of the good ones
    std::vector<GenerationProblem> problems;
};

// Every file read whole and held against its checksum. Throws Failure: the folder can't be read.
GenerationsCheck check_generations(const GenerationFolder &folder, const std::vector<Generation> &entries);

}  // namespace engine
