// Where each block lives: its offset in the NV image, and its file in the system backup area.
#pragma once

#include <stddef.h>

#include <array>
#include <cstdint>

#include "kesta/nv_image.h"

namespace kesta {

struct BlockRow {
    int block_id;
    int offset;  // bytes from the start of NV region 2
};

struct SysbackRow {
    int block_id;
    const char *sysbakname;
};

inline constexpr int nv_offset(std::size_t field) { return static_cast<int>(field); }

#define KESTA_FIELD(member) nv_offset(offsetof(KESTA_VOLATILE, member))

// Block 55 has no row on purpose: the reboot version lives in the system backup area only.
inline constexpr std::array<BlockRow, 35> block_id2offset{{
    {104, KESTA_FIELD(innerlock[3])},
    {103, KESTA_FIELD(innerlock[2])},
    {102, KESTA_FIELD(innerlock[1])},
    {101, KESTA_FIELD(innerlock[0])},
    {74, KESTA_FIELD(cnttbl.versioninfo.cnt[3].status)},
    {64, KESTA_FIELD(cnttbl.versioninfo.cnt[3].version)},
    {73, KESTA_FIELD(cnttbl.versioninfo.cnt[2].status)},
    {63, KESTA_FIELD(cnttbl.versioninfo.cnt[2].version)},
    {72, KESTA_FIELD(cnttbl.versioninfo.cnt[1].status)},
    {62, KESTA_FIELD(cnttbl.versioninfo.cnt[1].version)},
    {71, KESTA_FIELD(cnttbl.versioninfo.cnt[0].status)},
    {61, KESTA_FIELD(cnttbl.versioninfo.cnt[0].version)},
    {54, KESTA_FIELD(cnttbl.versioninfo.old_backup)},
    {53, KESTA_FIELD(cnttbl.versioninfo.work_backup)},
    {52, KESTA_FIELD(cnttbl.versioninfo.last_backup)},
    {51, KESTA_FIELD(cnttbl.versioninfo.id)},
    {44, KESTA_FIELD(cnttbl.lockinfo.command[3])},
    {43, KESTA_FIELD(cnttbl.lockinfo.command[2])},
    {42, KESTA_FIELD(cnttbl.lockinfo.command[1])},
    {41, KESTA_FIELD(cnttbl.lockinfo.command[0])},
    {33, KESTA_FIELD(cnttbl.sysbakinfo.old_backup_filename)},
    {32, KESTA_FIELD(cnttbl.sysbakinfo.accept_filename)},
    {31, KESTA_FIELD(cnttbl.sysbakinfo.last_backup_filename)},
    {21, KESTA_FIELD(cnttbl.groupinfo)},
    {14, KESTA_FIELD(cnttbl.restoreinfo.result[3])},
    {13, KESTA_FIELD(cnttbl.restoreinfo.result[2])},
    {12, KESTA_FIELD(cnttbl.restoreinfo.result[1])},
    {11, KESTA_FIELD(cnttbl.restoreinfo.result[0])},
    {4, KESTA_FIELD(cnttbl.restoreinfo.request[3])},
    {3, KESTA_FIELD(cnttbl.restoreinfo.request[2])},
    {2, KESTA_FIELD(cnttbl.restoreinfo.request[1])},
    {1, KESTA_FIELD(cnttbl.restoreinfo.request[0])},
    {201, KESTA_FIELD(wwn)},
    {202, KESTA_FIELD(serialno)},
    {203, KESTA_FIELD(guid)},
}};

#undef KESTA_FIELD

inline constexpr std::array<SysbackRow, 12> block_id2sysbak_name{{
    {51, "kesta_verid"},
    {52, "kesta_verback"},
    {61, "kesta_ver0"},
    {62, "kesta_ver1"},
    {63, "kesta_ver2"},
    {64, "kesta_ver3"},
    {31, "kesta_sysback"},
    {32, "kesta_sysacpt"},
    {201, "kesta_wwn"},
    {55, "kesta_reboot"},
    {202, "kesta_serialno"},
    {203, "kesta_guid"},
}};

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

template <typename Table>
constexpr bool unique_ids(const Table &table)
{
    for (const auto &row : table) {
        if (find_block(table, row.block_id) != &row) {
            return false;
        }
    }
    return true;
}

constexpr bool all_inside_image()
{
    for (const auto &row : block_id2offset) {
        if (row.offset < nv_offset(offsetof(KESTA_VOLATILE, cnttbl)) ||
            row.offset >= nv_offset(sizeof(KESTA_VOLATILE))) {
            return false;
        }
    }
    return true;
}

static_assert(unique_ids(block_id2offset) && all_inside_image());
static_assert(unique_ids(block_id2sysbak_name));
static_assert(find_block(block_id2offset, KESTA_BLOCK_REBOOT_VERSION) == nullptr);

}  // namespace kesta
