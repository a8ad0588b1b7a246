// The change that this command makes: what is known of it is gathered while it works, and told in the end to the log of
// changes and to the journal. One at a time: a command that runs others is the one.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "change_log.h"
#include "failure.h"

namespace engine {

// How a command ended.
struct ChangeEnd {
    Exit exit = Exit::done;
    std::string cause;    // the code of its failure
    std::string message;  // what it said
};

// From here on what is noted counts; without it nothing does.
void watch_change(const std::string &verb, const std::string &reason);

// This command is about to change something, and will be told of. The first one counts.
void note_change(const std::string &group);

// It begins now: the names in force are read as they are.
void begin_change();

// The number of this change; 0: none is watched.
std::uint64_t change_number();

void note_change_version(int version);
void note_replaced_archive(const ReplacedArchive &archive);
// What a place holds now.
void note_new_archive(const std::string &place, const std::string &sha256);
void note_replaced_files(const ReplacedFiles &files);

// Tells the log and the journal, if there is something to tell of. Best effort. The sentence says what could not be told;
// empty: nothing.
std::string end_change(const ChangeEnd &end);

}  // namespace engine
