// One structured line in the system's journal, or in its log where there is no journal.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace engine {

using JournalFields = std::vector<std::pair<std::string, std::string>>;

inline constexpr const char *journal_socket = "/run/systemd/journal/socket";

// As the journal takes it: a field a line. What a value holds beyond printable ASCII stands in it as \xNN, so that no
// value makes a line of its own.
std::string journal_datagram(const JournalFields &fields);

// Best effort, and never waits: whoever changes something goes on without it. False: nobody took it.
bool send_to_journal(const JournalFields &fields, const std::string &socket = journal_socket);

// The message goes to the log, with the fields behind it.
void send_to_log(const JournalFields &fields);

}  // namespace engine
