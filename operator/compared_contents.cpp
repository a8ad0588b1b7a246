#include "compared_contents.h"

#include <errno.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "failure.h"

namespace engine {
namespace {

constexpr std::size_t piece_size = 1UL << 16;

bool is_zeros(std::string_view text) { return text.find_first_not_of('\0') == std::string_view::npos; }

// Holds a file against pieces of contents, in their order.
class Comparison {
public:
    Comparison(int fd, std::string &piece) : fd_(fd), piece_(piece) {}

    void take(std::uint64_t offset, std::string_view piece)
    {
        skip_to(offset);
        while (same_ && !piece.empty()) {
            const std::string_view own = read(piece.size());
            same_ = !own.empty() && piece.starts_with(own);
            piece.remove_prefix(same_ ? own.size() : 0);
        }
    }
    bool ends_at(std::uint64_t size)
    {
        skip_to(size);
        return same_ && read(1).empty();
    }

private:
    void skip_to(std::uint64_t offset)
    {
        while (same_ && at_ < offset) {
            const std::string_view own = read(offset - at_);
            same_ = !own.empty() && is_zeros(own);
        }
    }
    std::string_view read(std::uint64_t most)
    {
        const std::size_t size = std::min<std::uint64_t>(most, piece_.size());
        ssize_t got;
        while ((got = pread(fd_, piece_.data(), size, static_cast<off_t>(at_))) < 0 && errno == EINTR) {
        }
        at_ += got > 0 ? static_cast<std::uint64_t>(got) : 0;
        return {piece_.data(), got > 0 ? static_cast<std::size_t>(got) : 0};
    }

    int fd_;
    bool same_ = true;
    std::uint64_t at_ = 0;
    std::string &piece_;
};

bool same_time(const timespec &one, const timespec &other)
{
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

bool is_before(const timespec &one, const timespec &other)
{
    return one.tv_sec < other.tv_sec || (one.tv_sec == other.tv_sec && one.tv_nsec < other.tv_nsec);
}

// The clock that the kernel marks changes of files with.
timespec file_clock()
{
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return now;
}

}  // namespace

bool ComparedContents::holds(const Descriptor &file, std::uint64_t size, const ReadMember &read)
{
    piece_.resize(piece_size);
    Comparison comparison(file.get(), piece_);
    read([&comparison](std::uint64_t offset, std::string_view piece) { comparison.take(offset, piece); });
    return comparison.ends_at(size);
}

bool ComparedContents::compare(const Member &member, const ReadMember &read, const GroupPlaces &places)
{
    Entry entry;
    try {
        entry = places.entry(member.path);
    } catch (const Failure &) {
        return false;  // told where it counts
    }
    struct stat status {};
    const Descriptor file = entry ? open_plain(entry, status) : Descriptor();
    if (!file || !S_ISREG(status.st_mode) || static_cast<std::uint64_t>(status.st_size) != member.size) {
        return false;
    }
    // What is changed from here on is marked with this time or a later one.
    const bool is_settled = is_before(status.st_ctim, file_clock());
    const bool same = holds(file, member.size, read);
    if (is_settled) {
        known_.insert_or_assign(member.number, Known{member.path, status, same});
    }
    return is_settled && same;
}

std::optional<bool> ComparedContents::of(std::size_t number, const std::string &path, const struct stat &now) const
{
    const auto found = known_.find(number);
    if (found == known_.end() || found->second.path != path) {
        return std::nullopt;
    }
    const struct stat &then = found->second.status;
    const bool unchanged = FileNumber(then) == FileNumber(now) && then.st_size == now.st_size &&
                           same_time(then.st_mtim, now.st_mtim) && same_time(then.st_ctim, now.st_ctim);
    return unchanged ? std::optional(found->second.same) : std::nullopt;
}

}  // namespace engine
