// What one copy of an archive is worth: read whole, in pieces, before anybody says which copy is right. This is the
// one test of wholeness: verify, copy, accept and save ask here, and restore reads members by the same rules. What was
// tested once in a run is known by its checksum: each copy of it is read, but not unpacked again.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "archive_contents.h"

namespace engine {

enum class CopyState {
    good,        // read to its end, and whole
    damaged,     // read to its end, and not whole
    absent,      // there is none
    unreadable,  // it, or part of it, can't be read: what it holds is not known
};

struct ArchiveEvidence {
    CopyState state = CopyState::absent;
    std::uint64_t bytes = 0;               // of good and damaged ones, as the next two
    std::string sha256;                    // in hexadecimal
    std::optional<std::int64_t> modified;  // seconds since 1970, where the place keeps it
    std::string reason;                    // why it is damaged or unreadable, in a few words
    bool beyond_limits = false;            // unreadable because it holds more than the limits of archives allow

    bool good() const { return state == CopyState::good; }
    bool absent() const { return state == CopyState::absent; }
    // Both were read, and hold the same bytes.
    bool same_bytes(const ArchiveEvidence &other) const { return !sha256.empty() && sha256 == other.sha256; }
};

// "good", "damaged", "absent", "unreadable"
const char *name_of(CopyState state);

// Of a file: a missing one is absent; anything that is no plain file, or gives an error, is unreadable. An archive
// beyond the limits is unreadable too: nothing tells whether it is whole. Both look again and again, which may throw.
ArchiveEvidence evidence_of_file(
    const std::string &path, const std::function<void()> &look = [] {});

// The same, and the contents of a good one as they were tested.
ArchiveEvidence evidence_of_file(const std::string &path, ArchiveContents *contents, const std::function<void()> &look);

// Somebody else has read these bytes to their end, member by member, and found them whole: they are not unpacked again.
void note_whole(const std::string &sha256, std::uint64_t bytes);

// Of contents that can be had already.
ArchiveEvidence evidence_of(
    const ArchiveContents &contents, const std::function<void()> &look = [] {});
ArchiveEvidence evidence_of_bytes(
    std::string_view bytes, const std::function<void()> &look = [] {});

// Of a slot of the system backup area, or any other file of it: absent only if the platform said that there is no such
// file. The second gives what was read as well.
ArchiveEvidence evidence_of_slot(
    const std::string &slot, const std::function<void()> &look = [] {});
ArchiveEvidence evidence_of_slot(
    const std::string &slot, ArchiveContents &contents, const std::function<void()> &look = [] {});

// Throws DamagedArchive or Failure unless it is good; the name is what it is told of as.
void require_whole(const ArchiveEvidence &evidence, const std::string &name);

}  // namespace engine
