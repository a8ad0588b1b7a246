// The layout of the NV image, proven at compile time: other programs and controllers read it.
#pragma once

#include <stddef.h>

#include <bit>
#include <type_traits>

#include "kesta/nv_image.h"

namespace kesta {

template <typename Record>
inline constexpr bool persistable =
    std::is_trivially_copyable_v<Record> &&std::has_unique_object_representations_v<Record>;

static_assert(std::endian::native == std::endian::little, "the image is little-endian");

static_assert(sizeof(KESTA_SYNC) == 8 && persistable<KESTA_SYNC>);
static_assert(offsetof(KESTA_SYNC, synced) == 0 && offsetof(KESTA_SYNC, req) == 1 && offsetof(KESTA_SYNC, rfu) == 2);

static_assert(sizeof(KESTA_RESTOREINFO) == 32 && persistable<KESTA_RESTOREINFO>);
static_assert(offsetof(KESTA_RESTOREINFO, request) == 0 && offsetof(KESTA_RESTOREINFO, result) == 16);

static_assert(sizeof(KESTA_STSBAKFILE) == 128 && persistable<KESTA_STSBAKFILE>);
static_assert(offsetof(KESTA_STSBAKFILE, last_backup_filename) == 0 &&
              offsetof(KESTA_STSBAKFILE, accept_filename) == 32 &&
              offsetof(KESTA_STSBAKFILE, old_backup_filename) == 64 && offsetof(KESTA_STSBAKFILE, filler3) == 96);

static_assert(sizeof(KESTA_COMMAND_LOCKINFO) == 24 && persistable<KESTA_COMMAND_LOCKINFO>);
static_assert(offsetof(KESTA_COMMAND_LOCKINFO, status) == 0 && offsetof(KESTA_COMMAND_LOCKINFO, filler) == 4 &&
              offsetof(KESTA_COMMAND_LOCKINFO, sign) == 8 && offsetof(KESTA_COMMAND_LOCKINFO, timeout) == 16);
static_assert(sizeof(KESTA_LOCKINFO) == 96);

static_assert(sizeof(KESTA_CNT_VERSIONINFO) == 8 && offsetof(KESTA_CNT_VERSIONINFO, version) == 0 &&
              offsetof(KESTA_CNT_VERSIONINFO, status) == 4);
static_assert(sizeof(KESTA_VERSIONINFO) == 48 && persistable<KESTA_VERSIONINFO>);
static_assert(offsetof(KESTA_VERSIONINFO, id) == 0 && offsetof(KESTA_VERSIONINFO, last_backup) == 4 &&
              offsetof(KESTA_VERSIONINFO, work_backup) == 8 && offsetof(KESTA_VERSIONINFO, old_backup) == 12 &&
              offsetof(KESTA_VERSIONINFO, cnt) == 16);

static_assert(sizeof(KESTA_CNT_COMMON_TBL) == 320 && persistable<KESTA_CNT_COMMON_TBL>);
static_assert(offsetof(KESTA_CNT_COMMON_TBL, restoreinfo) == 0 && offsetof(KESTA_CNT_COMMON_TBL, groupinfo) == 32 &&
              offsetof(KESTA_CNT_COMMON_TBL, sysbakinfo) == 48 && offsetof(KESTA_CNT_COMMON_TBL, lockinfo) == 176 &&
              offsetof(KESTA_CNT_COMMON_TBL, versioninfo) == 272);

static_assert(sizeof(KESTA_INNERLOCK_BUF) == 16 && persistable<KESTA_INNERLOCK_BUF>);
static_assert(offsetof(KESTA_INNERLOCK_BUF, status) == 0 && offsetof(KESTA_INNERLOCK_BUF, filler) == 4 &&
              offsetof(KESTA_INNERLOCK_BUF, timeout) == 8);

static_assert(sizeof(KESTA_VOLATILE) == 664 && persistable<KESTA_VOLATILE>);
static_assert(offsetof(KESTA_VOLATILE, alivemond) == 0 && offsetof(KESTA_VOLATILE, magic) == 8 &&
              offsetof(KESTA_VOLATILE, version) == 12 && offsetof(KESTA_VOLATILE, sync_flag) == 16 &&
              offsetof(KESTA_VOLATILE, cnttbl) == 24 && offsetof(KESTA_VOLATILE, wwn) == 344 &&
              offsetof(KESTA_VOLATILE, serialno) == 364 && offsetof(KESTA_VOLATILE, guid) == 384 &&
              offsetof(KESTA_VOLATILE, filler) == 404 && offsetof(KESTA_VOLATILE, innerlock) == 600);

}  // namespace kesta
