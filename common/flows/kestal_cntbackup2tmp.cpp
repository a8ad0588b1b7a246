#include <stdio.h>

#include "copy_command.h"
#include "formed_text.h"
#include "kesta/backup_flows.h"
#include "kesta/paths.h"
#include "storage_places.h"
#include "trace.h"

int kestal_cntbackup2tmp(const char *group, int acceptflg)
{
    TRACE(4, "[kestal_cntbackup2tmp] Flash(CNT-Backup) ---> Tmp (group_name=%s,acceptflg=%d)", group ? group : "(null)",
          acceptflg);
    if (!group) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_cntbackup2tmp] Group name Error.");
        return KESTA_ERR_ARGUMENT;
    }
    const kesta::Path source =
        kesta::path_of(KESTA_FLASH_DIRECTORY, acceptflg != 0 ? KESTA_ACCEPT_ARCHIVE : KESTA_BACKUP_ARCHIVE);
    const kesta::Path destination = kesta::path_of(KESTA_TMP_CACHE, KESTA_BACKUP_ARCHIVE);
    kesta::CommandLine command{};
    // Plain cp from the search path, unlike the other flows.
    if (!kesta::form(command, "cp -p %s %s", source.data(), destination.data())) {
        return KESTA_ERR;
    }
    const int rtn = kesta::run_copy(command.data(), source.data(), destination.data());
    if (rtn != 0) {
        FAILURE(COMMAND, rtn, 1, "[kestal_cntbackup2tmp] Script(Flash->Tmp) Exe Error rtn=%d", rtn);
        return KESTA_ERR;
    }
    TRACE(5, "[kestal_cntbackup2tmp] End.(%s) rtn=%d", command.data(), rtn);
    return KESTA_OK;
}
