// What controllers share, as a platform holds it: the regions of NV memory, and the files of the system backup area that
// the library knows.
#pragma once

#include <map>
#include <stdexcept>
#include <string>

namespace platform_copy {

inline constexpr std::size_t region_size = 32768;

// What stopped us, in a sentence, with the exit code.
class Stopped : public std::runtime_error {
public:
    Stopped(int exit_code, const std::string &what) : std::runtime_error(what), exit_code_(exit_code) {}
    int exit_code() const { return exit_code_; }

private:
    int exit_code_;
};

inline constexpr int exit_no = 1;
inline constexpr int exit_usage = 2;
inline constexpr int exit_held = 3;
inline constexpr int exit_failed = 4;

struct PlatformState {
    std::map<unsigned, std::string> regions;   // region_size bytes each
    std::map<std::string, std::string> files;  // those that are there, by name

    bool operator==(const PlatformState &) const = default;
    // Whether nothing was ever kept there.
    bool is_empty() const;
};

// Of the platform that this process is linked with. Throws Stopped where anything can't be read.
PlatformState read_state();

// Files first, NV memory last: until then the names in force are the old ones. Throws Stopped.
void write_state(const PlatformState &state);

// Who holds the inner lock or a command lock, "command-lock-0"; empty: nobody.
std::string holder_in(const PlatformState &state);

// To and from another process. Throws Stopped where what is read is cut.
void send(const PlatformState &state, int fd);
PlatformState receive(int fd);

}  // namespace platform_copy
