#include <errno.h>
#include <stdio.h>
#include <sys/stat.h>

#include "archive_file.h"
#include "formed_text.h"
#include "kesta/backup_flows.h"
#include "kesta/paths.h"
#include "kesta/process.h"
#include "ownership.h"
#include "slots_in_force.h"
#include "storage_places.h"
#include "trace.h"

namespace {

using kesta::AreaName;
using kesta::Path;

constexpr int unpack_mode = 1;

int write_temporary(const Path &temporary, const void *data, unsigned int size)
{
    const char *t_name = temporary.data();
    kesta::UniqueFd file(kesta::open_for_overwrite(t_name));
    if (!file) {
        SYSTEM_FAILURE(error, 1, "[backup2tmp]  File Open(write) ERROR  t_name=%s, errno=%d", t_name, error);
        return KESTA_ERR;
    }
    const kesta::WriteOutcome outcome = kesta::write_and_close(file, data, size, kesta::Flush::leave_to_system);
    if (!outcome.complete) {
        FAILURE(SYSTEM, outcome.error, 1, "[backup2tmp]  Write ERROR  t_name=%s buf_size=%d result=%d errno=%d", t_name,
                static_cast<int>(size), static_cast<int>(outcome.written), outcome.error);
        return KESTA_ERR;
    }
    return KESTA_OK;
}

int slot_to_temporary(const AreaName &slot, const Path &temporary)
{
    kesta::TrackedBuffer data;
    unsigned int size = 0;
    if (kestal_backup_rw(slot.c_str(), KESTA_FILE_READ, data.out(), &size) != KESTA_OK) {
        TRACE(1, "[backup2tmp]  Read Backup area ERROR  f_name=%s ", slot.c_str());
        return KESTA_ERR;
    }
    TRACE(4, "[backup2tmp] BACKUP(%s) ---> TMP", slot.c_str());
    return write_temporary(temporary, data.get(), size);
}

// Done even after a failed read or write: what an earlier copy left is moved then.
int publish(const Path &temporary, const Path &destination)
{
    int ret = KESTA_OK;
    if (rename(temporary.data(), destination.data()) != 0) {
        SYSTEM_FAILURE(error, 1, "[backup2tmp] move %s -> %s error. errno=%d", temporary.data(), destination.data(),
                       error);
        ret = KESTA_ERR;
    }
    if (chmod(destination.data(), kesta::finished_archive_mode) != 0) {
        SYSTEM_FAILURE(error, 1, "[backup2tmp] chmod error(filename:%s) errno=%d", destination.data(), error);
    }
    return ret;
}

int unpack()
{
    kesta::CommandLine command{};
    (void)kesta::form(command, "cd %s; /usr/bin/bunzip2 -c %s%s | /usr/sbin/tar -xf - > /dev/null 2>&1",
                      KESTA_TMP_CACHE, KESTA_TMP_CACHE, KESTA_BACKUP_ARCHIVE);
    int ret = KESTA_OK;
    const int result = kestal_exec_cmd_by_system(command.data());
    const int error = errno;
    if (result != 0) {
        FAILURE(SYSTEM, error, 1, "[backup2tmp] %sbackup.*.tar update error. result = %d errno=%d", KESTA_TMP_CACHE,
                result, error);
        ret = KESTA_ERR;
    }
    TRACE(3, "[backup2tmp] tmp-cache update (%s)", command.data());
    return ret;
}

}  // namespace

int kestal_backup2tmp(const char *group, int acceptflg, char *name, int mode)
{
    TRACE(5, "[backup2tmp] START");
    if (!group) {
        FAILURE(ARGUMENT, 0, 1, "[backup2tmp] Group name ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    AreaName slot;
    const int result = acceptflg != 0 ? kesta::read_accept_slot_name(slot) : kesta::read_backup_slot_name(slot);
    if (result != KESTA_OK) {
        // Level 5, unlike every other failure: an appliance without a slot is in an ordinary state, before its first
        // backup, and its log shows no error at the usual level.
        TRACE(5, "[backup2tmp] Get Backup area file name ERROR  result=%d", result);
        return KESTA_ERR;
    }
    if (name) {
        slot.copy_out(name);
    }
    const Path destination =
        kesta::path_of(KESTA_TMP_CACHE, mode == unpack_mode ? KESTA_BACKUP_ARCHIVE : KESTA_CHECK_ARCHIVE);
    Path temporary{};  // named after backup.tar.Z in every mode
    (void)kesta::form(temporary, "%s%s.tmp", KESTA_TMP_CACHE, KESTA_BACKUP_ARCHIVE);
    TRACE(5, "[backup2tmp] Tmp area path. t_name=%s", destination.data());

    int ret = slot_to_temporary(slot, temporary);
    if (publish(temporary, destination) != KESTA_OK) {
        ret = KESTA_ERR;
    }
    if (mode == unpack_mode && unpack() != KESTA_OK) {
        ret = KESTA_ERR;
    }
    TRACE(5, "[backup2tmp] END ret=%d", ret);
    return ret;
}
