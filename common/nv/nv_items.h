// The table of NV items. Each is stated here once, and all other tables are views of it: where a block lives, what it
// is called in the system backup area, which block belongs to a controller or a version area, what a repair copies, and
// what kesta_nv_items() hands out. To add an item: its field and its block ID (kesta/nv_image.h, nv_image_layout.h), a
// row here, and a test.
#pragma once

#include <stddef.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>

#include "kesta/nv_image.h"
#include "kesta/nv_items.h"
#include "kesta/versions.h"

namespace kesta {

struct NvItemRow {
    KESTA_NV_ITEM item;
    int mirror_rank = 0;                 // among the mirror files, from 1; 0: it has none
    int repair_rank = 0;                 // in the sequence of a repair, from 1
    const char *repair_label = nullptr;  // what the traces of a repair call it
};

struct NvField {
    int offset;
    unsigned int size;
};

inline constexpr int shared_by_all = -1;
inline constexpr NvField not_in_memory{-1, sizeof(std::int32_t)};
inline constexpr unsigned int identity_value_size = 16;  // characters of a WWN and a serial number, bytes of a GUID

constexpr NvItemRow item_of_all(int block_id, const char *name, int kind, NvField field, int version_area = 0)
{
    return {{block_id, name, kind, 0, shared_by_all, version_area, field.offset, field.size, field.size, nullptr, 0}};
}

constexpr NvItemRow item_of(int controller, int first_block, const char *name, int kind, NvField field, int id_type,
                            int version_area = 0)
{
    return {{first_block + controller, name, kind, id_type, controller, version_area, field.offset, field.size,
             field.size, nullptr, 0}};
}

// The flows that carry an identity read this much of a mirror, and a longer one is refused.
constexpr NvItemRow with_value_size(NvItemRow row, unsigned int value_size)
{
    row.item.value_size = value_size;
    return row;
}

constexpr NvItemRow mirrored(NvItemRow row, const char *file, unsigned int repaired_size, int mirror_rank, int repair_rank,
                             const char *repair_label)
{
    row.item.mirror = file;
    row.item.mirror_size = repaired_size;
    row.mirror_rank = mirror_rank;
    row.repair_rank = repair_rank;
    row.repair_label = repair_label;
    return row;
}

#define KESTA_FIELD(member)                                     \
    NvField{static_cast<int>(offsetof(KESTA_VOLATILE, member)), \
            static_cast<unsigned int>(sizeof(std::declval<KESTA_VOLATILE>().member))}
#define KESTA_EACH_CONTROLLER(item) item(0), item(1), item(2), item(3)
#define KESTA_RESTORE_REQUEST(n)                                                                 \
    item_of(n, KESTA_BLOCK_RESTORE_REQ_CNT0, "restore-request-cnt" #n, KESTA_NV_KIND_NUMBER,     \
            KESTA_FIELD(cnttbl.restoreinfo.request[n]), KESTA_IDTYPE_RESTORE_REQ)
#define KESTA_RESTORE_RESULT(n)                                                                  \
    item_of(n, KESTA_BLOCK_RESTORE_RES_CNT0, "restore-result-cnt" #n, KESTA_NV_KIND_NUMBER,      \
            KESTA_FIELD(cnttbl.restoreinfo.result[n]), KESTA_IDTYPE_RESTORE_RES)
#define KESTA_COMMAND_LOCK(n)                                                                    \
    item_of(n, KESTA_BLOCK_LOCK_CNT0, "lock-cnt" #n, KESTA_NV_KIND_COMMAND_LOCK,                 \
            KESTA_FIELD(cnttbl.lockinfo.command[n]), KESTA_IDTYPE_LOCK)
#define KESTA_VERSION(n)                                                                         \
    mirrored(item_of(n, KESTA_BLOCK_VERSION_CNT0, "version-cnt" #n, KESTA_NV_KIND_VERSION,       \
                     KESTA_FIELD(cnttbl.versioninfo.cnt[n].version), KESTA_IDTYPE_VERSION,       \
                     KESTA_VER_AREA_CURRENT),                                                    \
             "kesta_ver" #n, sizeof(std::int32_t), 3 + (n), 5 + (n), "Version #" #n)
#define KESTA_STATUS(n)                                                                          \
    item_of(n, KESTA_BLOCK_STATUS_CNT0, "status-cnt" #n, KESTA_NV_KIND_NUMBER,                   \
            KESTA_FIELD(cnttbl.versioninfo.cnt[n].status), KESTA_IDTYPE_STATUS, KESTA_VER_AREA_STATUS)
#define KESTA_INNER_LOCK(n)                                                                      \
    item_of(n, KESTA_BLOCK_INNERLOCK_CNT0, "innerlock-cnt" #n, KESTA_NV_KIND_INNER_LOCK,         \
            KESTA_FIELD(innerlock[n]), KESTA_IDTYPE_INNERLOCK)

// By ascending block ID.
inline constexpr std::array nv_item_rows{
    KESTA_EACH_CONTROLLER(KESTA_RESTORE_REQUEST),
    KESTA_EACH_CONTROLLER(KESTA_RESTORE_RESULT),
    item_of_all(KESTA_BLOCK_GROUP, "group", KESTA_NV_KIND_GROUP_NAME, KESTA_FIELD(cnttbl.groupinfo)),
    mirrored(item_of_all(KESTA_BLOCK_BACKUP_NAME, "backup-name", KESTA_NV_KIND_SLOT_NAME,
                         KESTA_FIELD(cnttbl.sysbakinfo.last_backup_filename)),
             "kesta_sysback", KESTA_AREA_NAME_SIZE, 7, 1, "BackupFile"),
    mirrored(item_of_all(KESTA_BLOCK_ACCEPT_NAME, "accept-name", KESTA_NV_KIND_SLOT_NAME,
                         KESTA_FIELD(cnttbl.sysbakinfo.accept_filename)),
             "kesta_sysacpt", KESTA_AREA_NAME_SIZE, 8, 2, "AcceptFile"),
    item_of_all(KESTA_BLOCK_OLD_BACKUP_NAME, "old-backup-name", KESTA_NV_KIND_SLOT_NAME,
                KESTA_FIELD(cnttbl.sysbakinfo.old_backup_filename)),
    KESTA_EACH_CONTROLLER(KESTA_COMMAND_LOCK),
    mirrored(item_of_all(KESTA_BLOCK_NUMBERING_VERSION, "numbering-version", KESTA_NV_KIND_VERSION,
                         KESTA_FIELD(cnttbl.versioninfo.id), KESTA_VER_AREA_NUMBERING),
             "kesta_verid", sizeof(std::int32_t), 1, 3, "Version id"),
    mirrored(item_of_all(KESTA_BLOCK_BACKUP_VERSION, "backup-version", KESTA_NV_KIND_VERSION,
                         KESTA_FIELD(cnttbl.versioninfo.last_backup), KESTA_VER_AREA_BACKUP),
             "kesta_verback", sizeof(std::int32_t), 2, 4, "Backup Version"),
    item_of_all(KESTA_BLOCK_ACCEPT_VERSION, "accept-version", KESTA_NV_KIND_VERSION,
                KESTA_FIELD(cnttbl.versioninfo.work_backup), KESTA_VER_AREA_ACCEPT),
    item_of_all(KESTA_BLOCK_OLD_BACKUP_VERSION, "old-backup-version", KESTA_NV_KIND_VERSION,
                KESTA_FIELD(cnttbl.versioninfo.old_backup)),
    mirrored(item_of_all(KESTA_BLOCK_REBOOT_VERSION, "reboot-version", KESTA_NV_KIND_VERSION, not_in_memory,
                         KESTA_VER_AREA_REBOOT),
             "kesta_reboot", sizeof(std::int32_t), 10, 9, "Reboot Version"),
    KESTA_EACH_CONTROLLER(KESTA_VERSION),
    KESTA_EACH_CONTROLLER(KESTA_STATUS),
    KESTA_EACH_CONTROLLER(KESTA_INNER_LOCK),
    mirrored(with_value_size(item_of_all(KESTA_BLOCK_WWN, "wwn", KESTA_NV_KIND_TEXT, KESTA_FIELD(wwn)),
                             identity_value_size),
             "kesta_wwn", identity_value_size, 9, 10, "WWN"),
    mirrored(with_value_size(item_of_all(KESTA_BLOCK_SERIALNO, "serialno", KESTA_NV_KIND_TEXT, KESTA_FIELD(serialno)),
                             identity_value_size),
             "kesta_serialno", identity_value_size, 11, 11, "SERIALNO"),
    // A repair copies the whole field of the GUID, other than of the two before: a disk may hold either length.
    mirrored(with_value_size(item_of_all(KESTA_BLOCK_GUID, "guid", KESTA_NV_KIND_BYTES, KESTA_FIELD(guid)),
                             identity_value_size),
             "kesta_guid", KESTA_IDENTITY_SIZE, 12, 12, "GUID"),
};

#undef KESTA_FIELD
#undef KESTA_EACH_CONTROLLER
#undef KESTA_RESTORE_REQUEST
#undef KESTA_RESTORE_RESULT
#undef KESTA_COMMAND_LOCK
#undef KESTA_VERSION
#undef KESTA_STATUS
#undef KESTA_INNER_LOCK

// ------------------------------------------------------------------------------------------------- views

// The rows that are chosen, as what they are made into.
template <auto Chosen, auto Make>
constexpr auto view_of_items()
{
    constexpr std::size_t count =
        static_cast<std::size_t>(std::count_if(nv_item_rows.begin(), nv_item_rows.end(), Chosen));
    std::array<decltype(Make(nv_item_rows.front())), count> view{};
    auto next = view.begin();
    for (const NvItemRow &row : nv_item_rows) {
        if (Chosen(row)) {
            *next++ = Make(row);
        }
    }
    return view;
}

template <typename View>
constexpr View sorted(View view, auto before)
{
    std::sort(view.begin(), view.end(), before);
    return view;
}

constexpr bool ids_ascend()
{
    return std::is_sorted(nv_item_rows.begin(), nv_item_rows.end(), [](const NvItemRow &one, const NvItemRow &other) {
        return one.item.block_id <= other.item.block_id;
    });
}

constexpr bool fields_lie_in_the_image()
{
    return std::all_of(nv_item_rows.begin(), nv_item_rows.end(), [](const NvItemRow &row) {
        const KESTA_NV_ITEM &item = row.item;
        return item.offset == not_in_memory.offset ||
               (item.offset >= static_cast<int>(offsetof(KESTA_VOLATILE, cnttbl)) &&
                item.offset + static_cast<int>(item.size) <= static_cast<int>(sizeof(KESTA_VOLATILE)));
    });
}

constexpr bool fields_are_apart()
{
    for (const NvItemRow &one : nv_item_rows) {
        for (const NvItemRow &other : nv_item_rows) {
            if (one.item.offset >= 0 && one.item.offset < other.item.offset &&
                one.item.offset + static_cast<int>(one.item.size) > other.item.offset) {
                return false;
            }
        }
    }
    return true;
}

// Each of 1 to the number of mirrored items once.
constexpr bool ranks_are_complete(int NvItemRow::*rank)
{
    const auto has = [rank](int wanted) {
        return std::count_if(nv_item_rows.begin(), nv_item_rows.end(),
                             [=](const NvItemRow &row) { return row.*rank == wanted; });
    };
    const auto mirrors = std::count_if(nv_item_rows.begin(), nv_item_rows.end(),
                                       [](const NvItemRow &row) { return row.item.mirror != nullptr; });
    for (int wanted = 1; wanted <= mirrors; ++wanted) {
        if (has(wanted) != 1) {
            return false;
        }
    }
    return true;
}

constexpr bool sizes_fit()
{
    return std::all_of(nv_item_rows.begin(), nv_item_rows.end(), [](const NvItemRow &row) {
        return row.item.value_size <= row.item.size && row.item.mirror_size <= row.item.size &&
               (row.item.mirror == nullptr) == (row.item.mirror_size == 0);
    });
}

static_assert(ids_ascend() && fields_lie_in_the_image() && fields_are_apart() && sizes_fit());
static_assert(ranks_are_complete(&NvItemRow::mirror_rank) && ranks_are_complete(&NvItemRow::repair_rank));

}  // namespace kesta
