// Contents of an archive's members that are kept aside while it is unpacked to be tested and compared, so that what is
// restored of them doesn't take a second unpacking. They come from the very pass that finds the archive whole, and nobody
// else can reach them: no checksum has to tell that they are still the same.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "archive_members.h"
#include "spool.h"

namespace engine {

// Beside the archives on flash, and never in the way of what a restore from an archive of this size writes there itself.
SpoolRule spool_on_flash(std::uint64_t archive_bytes);

class KeptContents {
public:
    // A file of many holes has many pieces.
    static constexpr std::size_t most_pieces = std::size_t{1} << 17;

    KeptContents() = default;  // keeps nothing
    explicit KeptContents(SpoolRule rule, std::size_t pieces = most_pieces) : spool_(std::move(rule)), pieces_(pieces)
    {
    }

    bool is_wanted() const { return spool_.has_value(); }

    // A member, each with a higher number than the one before: its pieces as they come, and whether it is needed. A
    // member for which there is no room is not kept, and nobody is told: who has the archive can unpack it again.
    void begin(std::size_t number);
    void take(std::uint64_t offset, std::string_view piece);
    void end(bool is_needed);

    // Whole; otherwise it isn't there.
    bool has(std::size_t number) const;

    // The pieces of a member that is there, in the order in which they came; looks before each, which may throw. Throws
    // Failure: they can't be read back.
    void read(std::size_t number, const std::function<void()> &look, const TakePiece &take) const;

    // To be asked before what was read is used: the disk may have failed to keep it. Throws Failure.
    void require_intact() const;

    // Gives up this member and those behind it, and their room.
    void drop_from(std::size_t number);

private:
    struct Piece {
        std::uint64_t offset;  // in the member
        std::uint64_t at;      // in the spool
        std::uint64_t size;
    };
    struct Kept {
        std::size_t number;
        std::size_t first_piece;
        std::uint64_t at;
    };
    std::size_t place_of(std::size_t number) const;
    void cut(std::size_t place);

    std::optional<Spool> spool_;
    std::size_t pieces_ = 0;
    std::vector<Kept> members_;  // in the order of their numbers
    std::vector<Piece> all_;
    bool is_whole_ = true;  // the member in hand
};

}  // namespace engine
