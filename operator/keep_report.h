// What keeping generations did.
#pragma once

#include <string>
#include <vector>

#include "generation.h"

namespace engine {

// What was done, for whoever asked for the change.
struct KeepReport {
    std::vector<Generation> kept;
    std::vector<Generation> dropped;
    std::vector<std::string> notes;  // sentences

    KeepReport();
    KeepReport(const KeepReport &other);
    KeepReport(KeepReport &&other) noexcept;
    KeepReport &operator=(const KeepReport &other);
    KeepReport &operator=(KeepReport &&other) noexcept;
    ~KeepReport();

    void add(const KeepReport &other);
    // Once, however often it is said.
    void note_full();
};

}  // namespace engine
