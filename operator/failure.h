// How a command of kestactl ends: its exit code, and what a refusal says.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

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
    // Views, and all else in failure.cpp: every file refuses something, most with plain literals.
    Failure(Exit exit, std::string_view code, std::string_view message, std::string_view hint);
    Failure(const Failure &other);
    Failure &operator=(const Failure &other);
    ~Failure() override;

    Exit exit() const { return exit_; }
    const std::string &code() const { return code_; }
    const std::string &hint() const { return hint_; }

private:
    Exit exit_;
    std::string code_;
    std::string hint_;
};

}  // namespace engine
