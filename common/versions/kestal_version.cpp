#include <cstdint>

#include "controllers.h"
#include "inner_lock_section.h"
#include "kesta/block_access.h"
#include "kesta/nv_image.h"
#include "kesta/versions.h"
#include "nv_items.h"
#include "trace.h"

namespace {

using kesta::InnerLockSection;
using kesta::is_controller;

constexpr kesta::InnerLockTexts lock_texts{"Inner Lock ERROR rtn=", "", "Inner UnLock ERROR rtn=", ""};

constexpr int not_available = -1;
constexpr int to_be_read = 0;  // compare: a number below this one is read

// The item of an area: the one of all controllers, or the first controller's. Null: there is no such area.
const KESTA_NV_ITEM *find_area(int verarea)
{
    for (const kesta::NvItemRow &row : kesta::nv_item_rows) {
        if (verarea != 0 && row.item.version_area == verarea) {
            return &row.item;
        }
    }
    return nullptr;
}

// The checks that all operations begin with; the tag is the operation's.
int check_arguments(const char *tag, int verarea, int cntno)
{
    if (!find_area(verarea)) {
        FAILURE(ARGUMENT, 0, 1, "[%s] Version Area ERROR verarea=%d", tag, verarea);
        return KESTA_ERR_ARGUMENT;
    }
    if (!is_controller(cntno)) {
        FAILURE(ARGUMENT, 0, 1, "[%s] CntNo ERROR cntno=%d", tag, cntno);
        return KESTA_ERR_ARGUMENT;
    }
    return KESTA_OK;
}

int resolve_block(const KESTA_NV_ITEM &area, int cntno, int &block_id)
{
    block_id = area.block_id;
    return area.id_type == 0 ? KESTA_OK : kestal_get_block_id(area.id_type, cntno, &block_id);
}

bool memory_has_version(int block_id, std::int32_t &version)
{
    const int rtn = kestal_non_volatile_rw_memory(block_id, KESTA_BLOCK_READ, &version, sizeof(version));
    if (rtn == KESTA_OK && version >= 0) {
        return true;
    }
    TRACE(2, "[read_version_nolock] non Volatile Read ERROR rtn=%d", rtn);
    return false;
}

void trace_set(int verarea, int cntno, int value)
{
    switch (verarea) {
    case KESTA_VER_AREA_NUMBERING:
        TRACE(4, "[set_version] ---> Numbering Version=%d", value);
        break;
    case KESTA_VER_AREA_ACCEPT:
        TRACE(4, "[set_version] ---> Accept Version=%d", value);
        break;
    case KESTA_VER_AREA_REBOOT:
        TRACE(4, "[set_version] ---> Reboot Version=%d", value);
        break;
    case KESTA_VER_AREA_CURRENT:
        TRACE(4, "[set_version] ---> Current(CNT%d) Version=%d", cntno, value);
        break;
    case KESTA_VER_AREA_BACKUP:
        TRACE(4, "[set_version] ---> Backup Version=%d", value);
        break;
    default:
        break;  // a status is set without a line
    }
}

// The numbers that a comparison lacks, read under one inner lock.
int read_missing(int cntno, int &backup, int &numbering)
{
    if (backup < to_be_read) {
        backup = kestal_read_version_nolock(KESTA_VER_AREA_BACKUP, cntno, KESTA_VERSION_BY_MODE);
        if (backup < 0) {
            TRACE(1, "[compare_version] Get Version(BACKUP,%d) ERROR rtn=%d", cntno, backup);
            return KESTA_ERR;
        }
    }
    if (numbering < to_be_read) {
        numbering = kestal_read_version_nolock(KESTA_VER_AREA_NUMBERING, cntno, KESTA_VERSION_BY_MODE);
        if (numbering < 0) {
            TRACE(1, "[compare_version] Get Version(NUMBERING) ERROR rtn=%d", numbering);
            return KESTA_ERR;
        }
    }
    return KESTA_OK;
}

// A section under the inner lock; the tag is the operation's. False: there was no lock. The result is the body's, or
// KESTA_ERR where the lock could not be given back.
template <typename Body>
bool under_inner_lock(const char *tag, int cntno, int &result, Body body)
{
    InnerLockSection lock(tag, lock_texts);
    if (lock.acquire(cntno) != KESTA_OK) {
        return false;
    }
    result = body();
    if (lock.release() != KESTA_OK) {
        result = KESTA_ERR;
    }
    return true;
}

int read_missing_locked(int cntno, int &backup, int &numbering)
{
    int ret = KESTA_ERR;
    (void)under_inner_lock("compare_version", cntno, ret, [&] { return read_missing(cntno, backup, numbering); });
    return ret;
}

// The first rule that holds decides; a tie in distance goes to the backup.
int decide(int current, int backup, int numbering)
{
    if (current == backup) {
        TRACE(3, "[compare_version] VERSION is SAME (backup=%d cnt=%d)", backup, current);
        return KESTA_VERSION_SAME;
    }
    if (backup == numbering) {
        TRACE(3, "[compare_version] Same Numbering=Back Version. rtn=%d", KESTA_VERSION_BACKUP_NEWER);
        return KESTA_VERSION_BACKUP_NEWER;
    }
    if (current == numbering) {
        TRACE(3, "[compare_version] Same Numbering=Current Version. rtn=%d", KESTA_VERSION_CURRENT_NEWER);
        return KESTA_VERSION_CURRENT_NEWER;
    }
    TRACE(3, "[compare_version] Back notequal Current Version.");
    if (current == 0) {
        TRACE(3, "[compare_version] Current Version = 0");
        return KESTA_VERSION_BACKUP_NEWER;
    }
    if (backup == 0) {
        TRACE(3, "[compare_version] Backup Version = 0");
        return KESTA_VERSION_CURRENT_NEWER;
    }
    const int back = kestal_distance_version(backup, numbering);
    const int cur = kestal_distance_version(current, numbering);
    if (back <= cur) {
        TRACE(3, "[compare_version] Distance Backup Version(back=%d,cur=%d)", back, cur);
        return KESTA_VERSION_BACKUP_NEWER;
    }
    TRACE(3, "[compare_version] Distance Current Version(back=%d,cur=%d)", back, cur);
    return KESTA_VERSION_CURRENT_NEWER;
}

}  // namespace

int kestal_read_version_nolock(int verarea, int cntno, int mode)
{
    TRACE(5, "[read_version_nolock] START");
    if (const int refused = check_arguments("read_version_nolock", verarea, cntno); refused != KESTA_OK) {
        return refused;
    }
    int block_id = 0;
    if (const int rtn = resolve_block(*find_area(verarea), cntno, block_id); rtn != KESTA_OK) {
        TRACE(1, "[read_version_nolock] Get Block ID(ID TYPE=RESTORE_SS) ERROR rtn=%d", rtn);
        return KESTA_ERR;
    }
    TRACE(5, "[read_version_nolock] Get block_id = %d", block_id);
    std::int32_t version = not_available;
    if (mode == KESTA_VERSION_BY_MODE || !memory_has_version(block_id, version)) {
        const int rtn = kestal_non_volatile_rw_func(block_id, KESTA_BLOCK_READ, &version, sizeof(version), nullptr);
        if (rtn != KESTA_OK) {
            TRACE(1, "[read_version_nolock] Volatile Read ERROR rtn=%d", rtn);
            return KESTA_ERR;
        }
    }
    TRACE(4, "[read_version_nolock] ...Read version=%d ...", version);
    return version;
}

int kestal_set_version_nolock(int verarea, int cntno, int value)
{
    TRACE(5, "[set_version_nolock] START");
    if (const int refused = check_arguments("set_version_nolock", verarea, cntno); refused != KESTA_OK) {
        return refused;
    }
    int block_id = 0;
    if (const int rtn = resolve_block(*find_area(verarea), cntno, block_id); rtn != KESTA_OK) {
        TRACE(1, "[set_version_nolock] Get Block ID(ID TYPE=VERSION) ERROR rtn=%d", rtn);
        return KESTA_ERR;
    }
    TRACE(5, "[set_version_nolock] Get block_id = %d", block_id);
    std::int32_t version = value;
    const int rtn = kestal_non_volatile_rw_func(block_id, KESTA_BLOCK_WRITE, &version, sizeof(version), nullptr);
    if (rtn != KESTA_OK) {
        // "Read" stands in this text of a failed write; kept, since logs are searched for it.
        TRACE(1, "[set_version_nolock] Volatile Read ERROR rtn=%d", rtn);
        return KESTA_ERR;
    }
    trace_set(verarea, cntno, value);
    TRACE(5, "[set_version_nolock] END");
    return KESTA_OK;
}

int kestal_read_version(int verarea, int cntno, int mode)
{
    TRACE(5, "[read_version] START");
    if (const int refused = check_arguments("read_version", verarea, cntno); refused != KESTA_OK) {
        return refused;
    }
    int version = KESTA_ERR;
    (void)under_inner_lock("read_version", cntno, version, [&] {
        const int rtn = kestal_read_version_nolock(verarea, cntno, mode);
        if (rtn < 0) {
            TRACE(1, "[read_version] Get Version ERROR rtn=%d", rtn);
        }
        return rtn;
    });
    if (version < 0) {
        return KESTA_ERR;
    }
    // This text names the numbering version for every area.
    TRACE(5, "[read_version] Get Numbering Version. versionno=%d", version);
    return version;
}

int kestal_set_version(int verarea, int cntno, int value)
{
    TRACE(5, "[set_version] START");
    if (const int refused = check_arguments("set_version", verarea, cntno); refused != KESTA_OK) {
        return refused;
    }
    TRACE(5, "[set_version] Set Version Value(%d) value=%d.", verarea, value);
    int ret = KESTA_ERR;
    const bool locked = under_inner_lock("set_version", cntno, ret, [&] {
        const int rtn = kestal_set_version_nolock(verarea, cntno, value);
        if (rtn < 0) {
            TRACE(1, "[set_version] Set Version ERROR rtn=%d", rtn);
        }
        return rtn < 0 ? KESTA_ERR : KESTA_OK;
    });
    if (!locked) {
        return KESTA_ERR;
    }
    TRACE(5, "[set_version] END ret=%d", ret);
    return ret;
}

int kestal_distance_version(int from, int to)
{
    const std::uint32_t difference = static_cast<std::uint32_t>(to) - static_cast<std::uint32_t>(from);
    const bool wrapped = static_cast<std::int32_t>(difference) < 0;
    return static_cast<std::int32_t>(wrapped ? difference - 1 : difference);
}

int kestal_compare_version(int cntno, int backup, int numbering)
{
    TRACE(5, "[compare_version] START");
    if (!is_controller(cntno)) {
        FAILURE(ARGUMENT, 0, 1, "[compare_version] CntNo ERROR cntno=%d", cntno);
        return KESTA_ERR_ARGUMENT;
    }
    int current = not_available;
    if (int rtn = kestal_read_flash_version_file(&current, KESTA_FLASH_VERSION); rtn != KESTA_OK) {
        TRACE(1, "[compare_version] Get Version(CNT(flash) ,%d) ERROR rtn=%d", cntno, rtn);
        // Releases a lock that was not taken: callers rely on their own slot being clear afterwards, in any case.
        rtn = kestal_reset_mycnt_innerlock_main(cntno, KESTA_OFF);
        if (rtn != KESTA_OK) {
            TRACE(1, "[compare_version] Inner UnLock ERROR rtn=%d", rtn);
        }
        return KESTA_ERR;
    }
    if (read_missing_locked(cntno, backup, numbering) != KESTA_OK) {
        return KESTA_ERR;
    }
    TRACE(3, "[compare_version] VERSION :flash=%d backup=%d numbering=%d ", current, backup, numbering);
    return decide(current, backup, numbering);
}
