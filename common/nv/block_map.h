// Where each block lives: its offset in the NV image, and its file in the system backup area. Both are views of the
// table of NV items, in the orders in which other tools list them.
#pragma once

#include "nv_items.h"

namespace kesta {

struct BlockRow {
    int block_id;
    int offset;  // bytes from the start of NV region 2
};

struct SysbackRow {
    int block_id;
    const char *sysbakname;
};

constexpr bool is_in_memory(const NvItemRow &row) { return row.item.offset >= 0; }
constexpr BlockRow offset_of(const NvItemRow &row) { return {row.item.block_id, row.item.offset}; }

// From the end of the image to its beginning, and then the identity.
constexpr bool stands_before(const BlockRow &one, const BlockRow &other)
{
    const bool one_is_identity = one.block_id >= KESTA_BLOCK_WWN;
    const bool other_is_identity = other.block_id >= KESTA_BLOCK_WWN;
    if (one_is_identity != other_is_identity) {
        return other_is_identity;
    }
    return one_is_identity ? one.offset < other.offset : one.offset > other.offset;
}

// The reboot version has no row on purpose: it lives in the system backup area only.
inline constexpr auto block_id2offset = sorted(view_of_items<is_in_memory, offset_of>(), stands_before);

struct MirrorRow {
    int rank;
    SysbackRow name;
};

constexpr bool is_mirrored(const NvItemRow &row) { return row.item.mirror != nullptr; }
constexpr MirrorRow mirror_of(const NvItemRow &row) { return {row.mirror_rank, {row.item.block_id, row.item.mirror}}; }

constexpr auto mirror_names()
{
    const auto rows = sorted(view_of_items<is_mirrored, mirror_of>(),
                             [](const MirrorRow &one, const MirrorRow &other) { return one.rank < other.rank; });
    std::array<SysbackRow, rows.size()> names{};
    std::transform(rows.begin(), rows.end(), names.begin(), [](const MirrorRow &row) { return row.name; });
    return names;
}

inline constexpr auto block_id2sysbak_name = mirror_names();

template <typename Table>
constexpr auto find_block(const Table &table, int block_id) -> const typename Table::value_type *
{
    for (const auto &row : table) {
        if (row.block_id == block_id) {
            return &row;
        }
    }
    return nullptr;
}

// Of an item that is mirrored.
constexpr const char *mirror_name(int block_id) { return find_block(block_id2sysbak_name, block_id)->sysbakname; }

static_assert(find_block(block_id2offset, KESTA_BLOCK_REBOOT_VERSION) == nullptr);

}  // namespace kesta
