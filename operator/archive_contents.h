// The bytes of an archive, wherever they lie, in pieces: a file is never held whole. A slot is, since the library gives
// and takes slots whole, but once, and for as long as its contents are used.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "beneath.h"
#include "failure.h"

namespace engine {

// Gives the pieces in their order, and an empty one behind the last; a piece lasts until the next call. It may throw
// UnreadableContents.
using NextPiece = std::function<std::string_view()>;

// A file that can't be read to its end. The text is that of fail_file.
class UnreadableContents : public Failure {
public:
    UnreadableContents(const Failure &failure, std::string reason) : Failure(failure), reason_(std::move(reason)) {}
    const std::string &reason() const { return reason_; }  // in a few words

private:
    std::string reason_;
};

struct ArchiveContents {
    std::uint64_t size = 0;
    // From the beginning, as often as it is asked for; one reader at a time.
    std::function<NextPiece()> pieces = [] {
        return [] {
            return std::string_view();
        };
    };
};

ArchiveContents contents_of_bytes(std::string bytes);

// Of a file that is open; the path is for messages.
ArchiveContents contents_of_file(Descriptor file, const std::string &path);

// Of a plain file. Throws Failure: there is none.
ArchiveContents contents_of_path(const std::string &path);

// What a slot of the system backup area holds, read whole. Throws Failure with this code if it can't be read.
inline constexpr const char *slot_unreadable = "slot-unreadable";
ArchiveContents read_slot(const std::string &slot);

// The same, read anew each time that it is asked for, so that nothing of it is held meanwhile.
ArchiveContents contents_of_slot(const std::string &slot, std::uint64_t size);

// The same, with a Failure in the place of the end if its checksum is another one: what is used is what was tested.
ArchiveContents contents_known_as(const ArchiveContents &contents, const std::string &sha256, const std::string &name);

void for_each_piece(const ArchiveContents &contents, const std::function<void(std::string_view piece)> &take);

// All of them at once: for what is small, or for who takes an archive whole.
std::string bytes_of(const ArchiveContents &contents);

std::string checksum_of(const ArchiveContents &contents);

bool same_contents(const ArchiveContents &one, const ArchiveContents &other);

}  // namespace engine
