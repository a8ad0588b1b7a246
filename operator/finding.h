// What is told of a subject and of its places: which side is right, and the commands that mend the other.
//
// What no mend does: it never overwrites or removes an archive that was not kept before, never takes a source that is
// not whole, and never guesses. Following mends ends in agreement, or in a row without a mend whose text says what is
// left. tests/operator/mending_test.cpp walks the states.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "archive_evidence.h"
#include "failure.h"

namespace engine {

enum class FindingState {
    agree,
    differs,
    damaged,
    absent,  // nothing there, and nothing expected
    unreadable,
    unfinished,
};

// "agree", "differs"...
const char *name_of(FindingState state);

struct PlaceFinding {
    std::string place;
    CopyState state = CopyState::absent;
    std::optional<int> version = std::nullopt;
    std::optional<std::uint64_t> bytes = std::nullopt;
    std::string sha256 = {};
    std::optional<std::int64_t> modified = std::nullopt;
    std::string reason = {};
};

PlaceFinding told_of(const std::string &place, const ArchiveEvidence &evidence);

// One command with its arguments, as it is run.
using MendCommand = std::vector<std::string>;
using Mend = std::vector<MendCommand>;

struct SubjectFinding {
    std::string subject;
    FindingState state = FindingState::agree;
    std::vector<PlaceFinding> places = {};
    std::optional<std::string> right = std::nullopt;  // the place that is whole and in force; nothing: it can't be told
    std::optional<Mend> mend = Mend();                // empty: nothing is to be done; nothing: no command can
    std::string text = {};

    bool counts() const { return state != FindingState::agree && state != FindingState::absent; }
    bool has_unreadable_place() const;
};

// The nine subjects, in the order slots, mirror, backup, accepted, versions, identity, locks, leftovers, generations.
struct Findings {
    int controller = -1;
    std::vector<SubjectFinding> rows;

    int count() const;
    // platform if anything can't be read, else no if something is found, else done.
    Exit exit() const;
};

// As a shell takes it.
std::string shell_text(const MendCommand &command);

}  // namespace engine
