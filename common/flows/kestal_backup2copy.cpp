#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "copy_command.h"
#include "formed_text.h"
#include "kesta/backup_flows.h"
#include "kesta/block_access.h"
#include "kesta/controller.h"
#include "kesta/paths.h"
#include "kesta/process.h"
#include "opened_file.h"
#include "ownership.h"
#include "storage_places.h"
#include "trace.h"

namespace {

constexpr int backup_slot = 0;      // not the accept slot
constexpr int unpack_in_cache = 1;  // make backup.tar.Z, and unpack it
constexpr int reset_mode = 1;

// Forces the copy onto flash. A copy that can't be opened is left to the rename to find.
bool flush_copy(const char *path)
{
    kesta::UniqueFd file(kesta::open_at_once(path, O_RDONLY));
    return !file || fsync(file.get()) == 0;
}

int refuse_copy(int result)
{
    FAILURE(COMMAND, result, 1, "[backup2copy] sysvol backup.tar.Z -> backup.tar.Z Copy Error result =%d", result);
    return KESTA_ERR;
}

int cache_to_flash()
{
    kesta::CommandLine command{};
    (void)kesta::form(command, "/usr/bin/cp -p %s%s %s%s > /dev/null 2>&1", KESTA_TMP_CACHE, KESTA_BACKUP_ARCHIVE,
                      KESTA_FLASH_DIRECTORY, KESTA_FLASH_COPY_ARCHIVE);
    const kesta::Path copy = kesta::path_of(KESTA_FLASH_DIRECTORY, KESTA_FLASH_COPY_ARCHIVE);
    const kesta::Path source = kesta::path_of(KESTA_TMP_CACHE, KESTA_BACKUP_ARCHIVE);
    int result = kesta::run_copy(command.data(), source.data(), copy.data());
    if (result != 0) {
        return refuse_copy(result);
    }
    if (!flush_copy(copy.data())) {
        return refuse_copy(KESTA_ERR);  // it has not reached flash, so nothing may point at it
    }
    if (chmod(copy.data(), kesta::finished_archive_mode) != 0) {
        SYSTEM_FAILURE(error, 1, "[backup2copy] chmod error(filename:%s) errno=%d", copy.data(), error);
    }
    const kesta::Path backup = kesta::path_of(KESTA_FLASH_DIRECTORY, KESTA_BACKUP_ARCHIVE);
    result = rename(copy.data(), backup.data());
    if (result != 0) {
        SYSTEM_FAILURE(error, 1, "[backup2copy] Remove From backup.tar.Z -> backup.tar.Z Error. result=%d, errno=%d",
                       result, error);
        return KESTA_ERR;
    }
    return KESTA_OK;
}

// Which storage places can be used, determined anew.
int check_access_mode(int &mode)
{
    const int result = kestal_rw_check_for_boot_mode(&mode, reset_mode);
    if (result != KESTA_OK) {
        TRACE(1, "[backup2copy] Write Check For Execute Mode Error result=%d.", result);
        return KESTA_ERR;
    }
    TRACE(4, "[backup2copy] RWMODE CHECK:%d", mode);
    return KESTA_OK;
}

int bring_backup_to_flash(const char *group)
{
    TRACE(3, "[backup2copy] Read sysvol backup.tar.Z for INITCONF & HDDOK");
    if (kestal_backup2tmp(group, backup_slot, nullptr, unpack_in_cache) != KESTA_OK) {
        // Not fatal: the group's copy script runs all the same, and its outcome counts.
        TRACE(2, "[backup2copy] Copy From Backup area To Tmp area Error.");
        return KESTA_OK;
    }
    return cache_to_flash();
}

int run_copy_script(const char *group)
{
    const kesta::Path cached = kesta::path_of(KESTA_TMP_CACHE, KESTA_BACKUP_ARCHIVE);
    TRACE(5, "[backup2copy] Tmp area path. t_name=%s", cached.data());
    kesta::CommandLine command{};
    (void)kesta::form(command, "/bin/sh %s%s/%s > /dev/null 2>&1", KESTA_GROUP_DIRECTORY, group, KESTA_COPY_SCRIPT);
    TRACE(5, "[backup2copy] Copy Script s_cmd=%s", command.data());
    const int result = kestal_exec_cmd_by_system(command.data());
    if (result != 0) {
        FAILURE(COMMAND, result, 1, "[backup2copy] Script(BACKUP ---> COPY) exec ERROR result =%d", result);
        return KESTA_ERR;
    }
    TRACE(5, "[backup2copy] BACKUP ---> COPY");
    return KESTA_OK;
}

}  // namespace

int kestal_backup2copy(const char *group)
{
    TRACE(5, "[backup2copy] START");
    if (!kesta::is_group_folder(group)) {
        FAILURE(ARGUMENT, 0, 1, "[backup2copy] Group name ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    TRACE(5, "[backup2copy] groupname=(%s)", group);
    int ret = KESTA_OK;
    if (kestal_get_cnt_num_from_cpinfo(KESTA_CPINFO_BOOT_MODE) == KESTA_BOOT_INITCONF) {
        // The disk is filled anew: flash gets its backup slot, if the disk is there at all.
        int mode = -1;
        if (check_access_mode(mode) != KESTA_OK) {
            return KESTA_ERR;
        }
        if (mode == KESTA_RWMODE_BOTH) {
            ret = bring_backup_to_flash(group);
        }
    }
    if (ret == KESTA_OK) {
        ret = run_copy_script(group);
    }
    TRACE(5, "[backup2copy] END ret=%d", ret);
    return ret;
}
