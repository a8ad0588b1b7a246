#include "mirror.h"

#include <errno.h>
#include <kesta/kesta.h>
#include <string.h>

#include <algorithm>
#include <array>

#include "trace_capture.h"

namespace engine {
namespace {

// How many bytes of an item are mirrored. The names are first.
struct ItemSize {
    int block;
    unsigned size;
};
constexpr std::array<ItemSize, 12> item_sizes{{
    {KESTA_BLOCK_BACKUP_NAME, 32},
    {KESTA_BLOCK_ACCEPT_NAME, 32},
    {KESTA_BLOCK_NUMBERING_VERSION, 4},
    {KESTA_BLOCK_BACKUP_VERSION, 4},
    {KESTA_BLOCK_VERSION_CNT0, 4},
    {KESTA_BLOCK_VERSION_CNT0 + 1, 4},
    {KESTA_BLOCK_VERSION_CNT0 + 2, 4},
    {KESTA_BLOCK_VERSION_CNT0 + 3, 4},
    {KESTA_BLOCK_REBOOT_VERSION, 4},
    {KESTA_BLOCK_WWN, 16},
    {KESTA_BLOCK_SERIALNO, 16},
    {KESTA_BLOCK_GUID, 20},
}};
constexpr std::size_t names = 2;

Content content_of(int (*read)(int, int, void *, unsigned), int flag, const ItemSize &item)
{
    std::vector<char> bytes(item.size, '\0');
    if (read(item.block, flag, bytes.data(), item.size) != KESTA_OK) {
        return std::nullopt;
    }
    return bytes;
}

// A file that is not there is no failure, and neither is one of another size than its item.
bool area_failed(std::uint64_t before)
{
    return was_traced("[backup_rw] ", before) && !was_traced("result=" + std::to_string(-ENOENT) + " ", before);
}

bool is_slot_field(const Content &content)
{
    return content && is_slot({content->data(), strnlen(content->data(), content->size())});
}

int write_item(Side to, int block, std::vector<char> bytes)
{
    const unsigned size = static_cast<unsigned>(bytes.size());
    return to == Side::memory
               ? kestal_non_volatile_rw_memory(block, KESTA_BLOCK_WRITE, bytes.data(), size)
               : kestal_non_volatile_rw_sysback(block, KESTA_FILE_WRITE, bytes.data(), size);
}

}  // namespace

const char *name_of(Side side)
{
    return side == Side::memory ? "NV memory" : "the system backup area";
}

bool MirroredItem::differs() const
{
    return block->in_memory ? !memory || !disk || *memory != *disk : !disk;
}

bool MirrorState::valid(Side side) const
{
    return std::all_of(items.begin(), items.begin() + names,
                       [side](const MirroredItem &item) { return is_slot_field(item.at(side)); });
}

bool MirrorState::differ() const
{
    return std::any_of(items.begin(), items.end(),
                       [](const MirroredItem &item) { return item.differs(); });
}

bool MirrorState::disk_lacks_only() const
{
    return std::all_of(items.begin(), items.end(), [](const MirroredItem &item) {
        return !item.differs() || !item.disk;
    });
}

MirrorState read_mirror()
{
    MirrorState state;
    for (const ItemSize &row : item_sizes) {
        MirroredItem item;
        item.block = &find_block(std::to_string(row.block));
        if (item.block->in_memory) {
            item.memory = content_of(kestal_non_volatile_rw_memory, KESTA_BLOCK_READ, row);
        }
        item.memory_unreadable = item.block->in_memory && !item.memory;
        const std::uint64_t before = traced_lines();
        item.disk = content_of(kestal_non_volatile_rw_sysback, KESTA_FILE_READ, row);
        item.disk_unreadable = !item.disk && area_failed(before);
        state.items.push_back(item);
    }
    return state;
}

std::vector<Replacement> replacements(const MirrorState &state, Side from)
{
    std::vector<Replacement> all;
    for (std::size_t i = 0; i < state.items.size(); ++i) {
        const MirroredItem &item = state.items[i];
        if (!item.block->in_memory) {
            if (from == Side::memory && !item.disk) {
                all.push_back({&item, std::vector<char>(item_sizes[i].size, '\0')});
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
        const std::size_t size = item_sizes.front().size;
        if (const int result = write_item(to, name.block->id, std::vector<char>(size, '\0'));
            result != KESTA_OK) {
            return result;
        }
        if (!name.differs()) {
            changes.insert(changes.begin(), {&name, *name.at(from)});
        }
    }
    std::reverse(changes.begin(), changes.end());  // the names last
    for (const Replacement &change : changes) {
        failed = change.item->block->name;
        if (const int result =
                kestal_repair_rw(direction, change.item->block->id,
                                 item_sizes[static_cast<std::size_t>(change.item -
                                                                     state.items.data())]
                                     .size);
            result != KESTA_OK) {
            return result;
        }
    }
    return KESTA_OK;
}

int add_missing_items(const MirrorState &state, std::string &failed)
{
    for (std::size_t i = 0; i < state.items.size(); ++i) {
        const MirroredItem &item = state.items[i];
        if (item.disk) {
            continue;
        }
        failed = item.block->name;
        const int result =
            kestal_repair_rw(KESTA_REPAIR_FROM_MEMORY, item.block->id, item_sizes[i].size);
        if (result != KESTA_OK) {
            return result;
        }
    }
    return KESTA_OK;
}

}  // namespace engine
