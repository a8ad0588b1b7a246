// Asking the other controllers something: all at once, each by a program of its own, and none for longer than the time
// limit. What comes back was written by another machine: it is bounded, and nothing here understands it.
#pragma once

#include <string>
#include <vector>

#include "held_command.h"

namespace engine {

// How a command line reaches another controller. A setting replaces the words; %h stands for the controller's name.
struct RemoteTransport {
    std::vector<std::string> words{"/usr/bin/rsh", "-l", "vndrmnt", "%h", "pfexec"};
    int timeout = 20;  // seconds
};

// Lines "command = WORDS" and "timeout = SECONDS".
inline constexpr const char *remote_settings_file = "/etc/kesta/remote.conf";

// Throws Failure: a line of the file can't be used.
RemoteTransport remote_transport();

inline constexpr std::size_t longest_remote_answer = std::size_t{1} << 20;

struct RemoteAnswer {
    int controller = 0;
    bool has_ended = false;  // by itself, in time, with an answer that is not too long
    int exit_code = -1;
    std::string text;  // what it printed
    std::string why;   // why there is none, as the end of a sentence
};

// In the order of the controllers. The command's words go through the other side's shell. Throws Failure: a signal has
// asked this command to end; all programs are ended then.
std::vector<RemoteAnswer> ask_controllers(const std::vector<int> &controllers, const std::vector<std::string> &command,
                                          const RemoteTransport &transport, const HeldSignals &signals);

// The other controllers of this appliance. Throws Failure: it can't be told.
std::vector<int> other_controllers();

}  // namespace engine
