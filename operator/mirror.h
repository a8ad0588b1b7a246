// The twelve items that are kept in NV memory and in the system backup area: what each place holds,
// and how one is made to hold what the other does.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "names.h"

namespace engine {

enum class Side { memory, disk };

inline Side other(Side side) { return side == Side::memory ? Side::disk : Side::memory; }

// "NV memory" or "the system backup area".
const char *name_of(Side side);

// By block ID: the slot names are the first.
std::vector<const Block *> mirrored_blocks();

// Whether the bytes behind the value are zeros, as they are to be.
bool holds_value_only(const Block &block, const std::vector<char> &bytes);

// Writes one item in one place. Returns the library's result.
int write_item(Side to, int block, std::vector<char> bytes);

// An item as a place holds it. No bytes: it can't be read there, or has no place there.
using Content = std::optional<std::vector<char>>;

struct MirroredItem {
    const Block *block = nullptr;
    Content memory;
    Content disk;
    // There may be something that can't be read: a call failed, and not because there is no such file.
    bool memory_unreadable = false;
    bool disk_unreadable = false;

    const Content &at(Side side) const { return side == Side::memory ? memory : disk; }
    // The reboot version lives on disk only: there is nothing to differ from.
    bool differs() const;
};

// Both places at one moment.
struct MirrorState {
    std::vector<MirroredItem> items;  // the slot names first

    // Whether a place can be trusted: both slot names can be read there, and are slot names.
    bool valid(Side side) const;
    bool differ() const;
    // Whether the disk merely lacks items, and differs in nothing: then NV memory completes it, and nothing
    // is lost.
    bool disk_lacks_only() const;

    bool operator==(const MirrorState &) const = default;
};

inline bool operator==(const MirroredItem &a, const MirroredItem &b)
{
    return a.block == b.block && a.memory == b.memory && a.disk == b.disk;
}

MirrorState read_mirror();

// What a copy from a place does to one item of the other place.
struct Replacement {
    const MirroredItem *item;
    std::vector<char> value;  // what it becomes
};

// The items that a copy from this place changes. The reboot version is created where it is missing
// on disk, and left alone otherwise: memory has none that it could be replaced by.
std::vector<Replacement> replacements(const MirrorState &state, Side from);

// Copies the items from a place to the other. The names come last, and a name that is in the way goes
// first: a copy that is cut short leaves a place that does not pass for a good one, and can be begun
// again. Returns 0, or the first failed call's result; failed then holds the block's name.
int copy_items(const MirrorState &state, Side from, std::string &failed);

// Adds the items that the disk lacks, from memory, and nothing else. Returns as copy_items.
int add_missing_items(const MirrorState &state, std::string &failed);

}  // namespace engine
