// How a command of kestactl ends: its exit code, and what a refusal says.
#pragma once

#include <stdexcept>
#include <string>

namespace engine {

enum class Exit : int {
    done = 0,
    no = 1,             // the answer is no, or things differ
    usage = 2,          // wrong usage
    locked = 3,         // held by a lock
    platform = 4,       // the platform failed
    interrupted = 130,  // by Ctrl-C
};

// The code of a failure that a full disk causes.
inline constexpr const char *no_room = "no-room";

// One sentence that says what is wrong, and one that says what to do.
class Failure : public std::runtime_error {
public:
    Failure(Exit exit, std::string code, const std::string &message, std::string hint)
        : std::runtime_error(message), exit_(exit), code_(std::move(code)), hint_(std::move(hint))
    {
    }

    Exit exit() const { return exit_; }
    const std::string &code() const { return code_; }
    const std::string &hint() const { return hint_; }

private:
    Exit exit_;
    std::string code_;
    std::string hint_;
};

}  // namespace engine
