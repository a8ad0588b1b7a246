#include "kept_contents.h"

#include <algorithm>

#include "kesta/paths.h"

namespace engine {
namespace {

constexpr std::uint64_t buffer_size = 1UL << 16;

}  // namespace

// A restore brings the archive itself to flash, and what it replaces, so that it can be undone.
SpoolRule spool_on_flash(std::uint64_t archive_bytes)
{
    return {.folder = KESTA_FLASH_DIRECTORY, .spared = 2 * archive_bytes};
}

void KeptContents::begin(std::size_t number)
{
    members_.push_back({number, all_.size(), spool_->size()});
    is_whole_ = true;
}

void KeptContents::take(std::uint64_t offset, std::string_view piece)
{
    const bool follows = all_.size() > members_.back().first_piece && all_.back().offset + all_.back().size == offset;
    const std::uint64_t at = spool_->size();
    is_whole_ = is_whole_ && (follows || all_.size() < pieces_) && spool_->append(piece);
    if (!is_whole_) {
        return;
    }
    if (follows) {
        all_.back().size += piece.size();
    } else {
        all_.push_back({offset, at, piece.size()});
    }
}

void KeptContents::end(bool is_needed)
{
    if (!is_needed || !is_whole_) {
        cut(members_.size() - 1);
    }
}

std::size_t KeptContents::place_of(std::size_t number) const
{
    const auto found = std::lower_bound(members_.begin(), members_.end(), number,
                                        [](const Kept &member, std::size_t wanted) { return member.number < wanted; });
    return static_cast<std::size_t>(found - members_.begin());
}

bool KeptContents::has(std::size_t number) const
{
    const std::size_t place = place_of(number);
    return place < members_.size() && members_[place].number == number;
}

void KeptContents::read(std::size_t number, const std::function<void()> &look, const TakePiece &take) const
{
    const std::size_t place = place_of(number);
    const std::size_t end = place + 1 < members_.size() ? members_[place + 1].first_piece : all_.size();
    std::string buffer;
    for (std::size_t i = members_[place].first_piece; i < end; ++i) {
        const Piece &piece = all_[i];
        buffer.resize(std::max<std::uint64_t>(buffer.size(), std::min(piece.size, buffer_size)));
        for (std::uint64_t done = 0; done < piece.size;) {
            look();
            const std::string_view bytes = spool_->read(piece.at + done, piece.size - done, buffer);
            take(piece.offset + done, bytes);
            done += bytes.size();
        }
    }
}

void KeptContents::require_intact() const
{
    if (spool_) {
        spool_->require_written();
    }
}

void KeptContents::drop_from(std::size_t number)
{
    const std::size_t place = place_of(number);
    if (place < members_.size()) {
        cut(place);
    }
}

void KeptContents::cut(std::size_t place)
{
    spool_->cut(members_[place].at);
    all_.resize(members_[place].first_piece);
    members_.resize(place);
}

}  // namespace engine
