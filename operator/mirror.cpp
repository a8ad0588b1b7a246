#include "mirror.h"

#include <errno.h>
#include <kesta/kesta.h>
#include <string.h>

#include <algorithm>

#include "causes.h"

namespace engine {
namespace {

constexpr std::size_t names = 2;

// How much of an item a repair copies. To the disk goes what holds the value: whoever reads a mirror of an identity may
// have room for no more. A file may have either length.
std::size_t copied_size(Side from, const MirroredItem &item)
{
    const Block &block = *item.block;
    const Content &content = item.at(from);
    const bool value_is_all = from == Side::memory && (!content || holds_value_only(block, *content));
    return value_is_all ? std::min(block.written, block.mirror_size) : block.mirror_size;
}

Content content_of(int (*read)(int, int, void *, unsigned), int flag, const Block &block)
{
    std::vector<char> bytes(block.mirror_size, '\0');
    if (read(block.id, flag, bytes.data(), block.mirror_size) != KESTA_OK) {
        return std::nullopt;
    }
    return bytes;
}

bool is_slot_field(const Content &content)
{
    return content && is_slot({content->data(), strnlen(content->data(), content->size())});
}

}  // namespace

std::vector<const Block *> mirrored_blocks()
{
    std::vector<const Block *> mirrored;
    for (const Block &block : blocks()) {
        if (block.mirrored) {
            mirrored.push_back(&block);
        }
    }
    return mirrored;
}

int write_item(Side to, int block, std::vector<char> bytes)
{
    const unsigned size = static_cast<unsigned>(bytes.size());
    return to == Side::memory ? kestal_non_volatile_rw_memory(block, KESTA_BLOCK_WRITE, bytes.data(), size)
                              : kestal_non_volatile_rw_sysback(block, KESTA_FILE_WRITE, bytes.data(), size);
}

bool holds_value_only(const Block &block, const std::vector<char> &bytes)
{
    return all_zero(
        {bytes.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(block.written, bytes.size())), bytes.end()});
}

const char *name_of(Side side) { return side == Side::memory ? "NV memory" : "the system backup area"; }

bool MirroredItem::differs() const { return block->in_memory ? !memory || !disk || *memory != *disk : !disk; }

bool MirrorState::valid(Side side) const
{
    return std::all_of(items.begin(), items.begin() + names,
                       [side](const MirroredItem &item) { return is_slot_field(item.at(side)); });
}

bool MirrorState::differ() const
{
    return std::any_of(items.begin(), items.end(), [](const MirroredItem &item) { return item.differs(); });
}

bool MirrorState::disk_lacks_only() const
{
    return std::all_of(items.begin(), items.end(),
                       [](const MirroredItem &item) { return !item.differs() || !item.disk; });
}

MirrorState read_mirror()
{
    MirrorState state;
    for (const Block *const block : mirrored_blocks()) {
        MirroredItem item;
        item.block = block;
        if (item.block->in_memory) {
            item.memory = content_of(kestal_non_volatile_rw_memory, KESTA_BLOCK_READ, *block);
        }
        item.memory_unreadable = item.block->in_memory && !item.memory;
        kesta_clear_cause();
        item.disk = content_of(kestal_non_volatile_rw_sysback, KESTA_FILE_READ, *block);
        item.disk_unreadable = !item.disk && area_failed();
        state.items.push_back(item);
    }
    return state;
}

std::vector<Replacement> replacements(const MirrorState &state, Side from)
{
    std::vector<Replacement> all;
    for (const MirroredItem &item : state.items) {
        if (!item.block->in_memory) {
            if (from == Side::memory && !item.disk) {
                all.push_back({&item, std::vector<char>(item.block->mirror_size, '\0')});
            }
        } else if (item.differs()) {
            all.push_back({&item, item.at(from).value_or(std::vector<char>())});
        }
    }
    return all;
}

int copy_items(const MirrorState &state, Side from, std::string &failed)
{
    const Side to = other(from);
    const int direction = from == Side::memory ? KESTA_REPAIR_FROM_MEMORY : KESTA_REPAIR_FROM_SYSBACK;
    std::vector<Replacement> changes = replacements(state, from);
    if (!changes.empty() && state.valid(to)) {
        const MirroredItem &name = state.items.front();
        failed = name.block->name;
        const std::size_t size = name.block->mirror_size;
        if (const int result = write_item(to, name.block->id, std::vector<char>(size, '\0')); result != KESTA_OK) {
            return result;
        }
        if (!name.differs()) {
            changes.insert(changes.begin(), {&name, *name.at(from)});
        }
    }
    std::reverse(changes.begin(), changes.end());  // the names last
    for (const Replacement &change : changes) {
        failed = change.item->block->name;
        if (const int result = kestal_repair_rw(direction, change.item->block->id, copied_size(from, *change.item));
            result != KESTA_OK) {
            return result;
        }
    }
    return KESTA_OK;
}

int add_missing_items(const MirrorState &state, std::string &failed)
{
    for (const MirroredItem &item : state.items) {
        if (item.disk) {
            continue;
        }
        failed = item.block->name;
        const int result = kestal_repair_rw(KESTA_REPAIR_FROM_MEMORY, item.block->id, copied_size(Side::memory, item));
        if (result != KESTA_OK) {
            return result;
        }
    }
    return KESTA_OK;
}

}  // namespace engine
