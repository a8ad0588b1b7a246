// Packing by another program, with all processors: lbzip2, where it is installed. What it writes is unpacked as what
// bzip2 writes is. It may be missing, fail, hang or be killed: whoever packs then does so himself.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

#include "beneath.h"

namespace engine {

// The program that packs so many bytes; empty: none is installed, it is switched off, or not worth its start. Throws
// Failure: a setting can't be used.
std::string packing_program(std::uint64_t bytes);

class PackingProgram {
public:
    // One that gets no further for so long hangs.
    static constexpr std::chrono::milliseconds usual_patience{60'000};

    // Packs into an open file. Looks again and again while it is waited for, which may throw. What can't be started fails.
    PackingProgram(const std::string &program, int file, const std::function<void()> &look,
                   std::chrono::milliseconds patience = usual_patience);
    ~PackingProgram();  // ends it, and waits for its end
    PackingProgram(const PackingProgram &) = delete;
    PackingProgram &operator=(const PackingProgram &) = delete;

    // False: it does not take them. Nothing is to be said to it any more.
    bool take(std::string_view bytes);
    // There is no more. True: it has ended as one that has written all of it.
    bool finish();

private:
    bool has_ended(bool &well);

    const std::function<void()> &look_;
    const std::chrono::milliseconds patience_;
    Descriptor input_;
    pid_t process_ = -1;
};

}  // namespace engine
