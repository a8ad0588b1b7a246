// What this process knows of the inner lock's slots, and which of its writes to their region may go through therefore.
//
// Whoever has written a claim into a slot holds the lock, or is about to; its other writes rest on that. While it was
// stopped for long enough somebody may have cleared its claim and taken the lock. So they go through only where the
// claim still stands. A slot that somebody else left is cleared only as it was seen: between the look and the clearing
// it may have been cleared already, and claimed anew.
//
// The slots are told by their place and size alone, as the image lays them out.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace etcd {

inline constexpr unsigned image_region = 2;
inline constexpr std::size_t slot_count = 4;
extern const std::size_t first_slot;  // its offset in the region
extern const std::size_t slot_size;

class LockFence {
public:
    enum class Judgement {
        go,     // if the region is still as it was judged by
        done,   // there is nothing to be written
        stale,  // the lock is somebody else's
    };

    // Judges a write by the region's contents.
    Judgement judge(std::size_t offset, std::string_view bytes, std::string_view region) const;

    // What came of it, and what was read.
    void written(std::size_t offset, std::string_view bytes);
    void unanswered(std::size_t offset, std::string_view bytes);
    void read(std::size_t offset, std::string_view bytes);

    // In a child made by fork: the locks are its parent's.
    void forget() { *this = LockFence(); }

private:
    struct Slot {
        std::string claim;  // empty: none of this process
        bool sure = false;  // it was written; else its write had no answer
        std::optional<std::string> seen;
    };

    std::array<Slot, slot_count> slots_;
};

}  // namespace etcd
