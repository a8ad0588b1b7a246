#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include "archive_file.h"
#include "copy_command.h"
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

// area_flag
constexpr int switch_with_accept = 0;
constexpr int switch_with_backup = 1;
constexpr int no_switch_backup_side = 2;
constexpr int no_switch_accept_side = 3;

// rbflg
constexpr int update_script = 1;
constexpr int reboot_script = 2;

constexpr int switch_stage_only = 1;

struct Request {
    const char *group;
    int area_flag;
    int rbflg;
    int distribution;
    char *fileptr;
    bool flash_copy;

    bool accept_side() const { return area_flag == no_switch_accept_side; }
};

void trace_slot_name(const AreaName &slot, const char *fileptr)
{
    TRACE(4, "[sysback2current] f_name:%s, fileptr:%s", slot.c_str(), AreaName(fileptr).c_str());
}

int look_up_slot(const Request &request, AreaName &slot)
{
    TRACE(5, "[sysback2current] SWITCH-IN");
    int result;
    switch (request.area_flag) {
    case switch_with_accept:
        result = kesta::read_accept_slot_name(slot);
        break;
    case switch_with_backup:
        result = kesta::read_backup_slot_name(slot);
        break;
    default:
        FAILURE(ARGUMENT, 0, 1, "[sysback2current] Argument ERROR(area_flag=%d).", request.area_flag);
        return KESTA_ERR_ARGUMENT;
    }
    if (result != KESTA_OK) {
        TRACE(1, "[sysback2current] Get area file name ERROR result=%d", result);
        return KESTA_RESTORE_SWITCH_FAILED;
    }
    TRACE(5, "[sysback2current] SWITCH-END(area_flag:%d)", request.area_flag);
    if (request.fileptr) {
        slot.copy_out(request.fileptr);
        trace_slot_name(slot, request.fileptr);
    }
    return KESTA_OK;
}

int choose_slot(const Request &request, AreaName &slot)
{
    TRACE(5, "[sysback2current] SWITCH(area_flag:%d)", request.area_flag);
    if (request.fileptr && request.fileptr[0] != '\0') {
        slot = AreaName(request.fileptr);
        trace_slot_name(slot, request.fileptr);
        return KESTA_OK;
    }
    return look_up_slot(request, slot);
}

int write_flash_copy(const char *c_name, const void *data, unsigned int size)
{
    kesta::UniqueFd file(kesta::open_for_overwrite(c_name));
    if (!file) {
        SYSTEM_FAILURE(error, 1, "[sysback2current]  File Open(write) ERROR c_name=%s, errno=%d", c_name, error);
        return KESTA_RESTORE_SWITCH_FAILED;
    }
    const kesta::WriteOutcome outcome = kesta::write_and_close(file, data, size, kesta::Flush::to_disk);
    if (!outcome.complete) {
        FAILURE(SYSTEM, outcome.error, 1,
                "[sysback2current]  File Write ERROR c_name=%s buf_size=%d result=%d errno=%d", c_name,
                static_cast<int>(size), static_cast<int>(outcome.written), outcome.error);
        return KESTA_RESTORE_SWITCH_FAILED;
    }
    if (chmod(c_name, kesta::finished_archive_mode) != 0) {
        SYSTEM_FAILURE(error, 1, "[sysback2current] chmod error(filename:%s) errno=%d", c_name, error);
    }
    return KESTA_OK;
}

int slot_to_flash(const AreaName &slot, const void *data, unsigned int size)
{
    const Path copy = kesta::path_of(KESTA_FLASH_DIRECTORY, KESTA_FLASH_COPY_ARCHIVE);
    TRACE(5, "[sysback2current] CNT backup area path. c_name=%s", copy.data());
    TRACE(4, "[sysback2current] SYSBACK(%s) ---> CNT_BACKUP(%s)", slot.c_str(), copy.data());
    if (const int ret = write_flash_copy(copy.data(), data, size); ret != KESTA_OK) {
        return ret;
    }
    const Path backup = kesta::path_of(KESTA_FLASH_DIRECTORY, KESTA_BACKUP_ARCHIVE);
    const int result = rename(copy.data(), backup.data());
    if (result != 0) {
        SYSTEM_FAILURE(error, 1,
                       "[sysback2current] sysvol backup.tar.Z -> backup.tar.Z Copy Error result =%d, errno=%d", result,
                       error);
        return KESTA_RESTORE_SWITCH_FAILED;
    }
    return KESTA_OK;
}

bool copy_accept_archive()
{
    kesta::CommandLine command{};
    (void)kesta::form(command, "cp -p %s%s %s%s > /dev/null 2>&1", KESTA_FLASH_DIRECTORY, KESTA_ACCEPT_ARCHIVE,
                      KESTA_MERGE_CACHE, KESTA_BACKUP_ARCHIVE);
    TRACE(4, "[sysback2current] FLASHCOPY(%s%s -> %s%s)", KESTA_FLASH_DIRECTORY, KESTA_ACCEPT_ARCHIVE,
          KESTA_MERGE_CACHE, KESTA_BACKUP_ARCHIVE);
    const Path accept = kesta::path_of(KESTA_FLASH_DIRECTORY, KESTA_ACCEPT_ARCHIVE);
    const Path merged = kesta::path_of(KESTA_MERGE_CACHE, KESTA_BACKUP_ARCHIVE);
    if (kesta::run_copy(command.data(), accept.data(), merged.data()) != 0) {
        TRACE(4, "[sysback2current] FLASHCOPY(cmd:%s) Execute Error.", command.data());
        return false;
    }
    return true;
}

// The four-letter kind of the script, or null where none is chosen.
const char *script_kind(const Request &request)
{
    switch (request.rbflg) {
    case update_script:
        return request.accept_side() ? "udap" : "udbk";
    case reboot_script:
        return request.accept_side() ? "rbap" : "rbbk";
    default:
        return nullptr;
    }
}

// Where no script is chosen the command stays empty, and an empty command is run.
kesta::CommandLine script_command(const Request &request)
{
    char distribution[16] = "";
    if (request.distribution != 0) {
        snprintf(distribution, sizeof(distribution), "%d", request.distribution);
    }
    kesta::CommandLine command{};
    if (const char *kind = script_kind(request)) {
        (void)kesta::form(command, "/bin/sh %s%s/%s%s%s%s > /dev/null 2>&1", KESTA_GROUP_DIRECTORY, request.group,
                          KESTA_RESTORE_SCRIPT_BEGIN, kind, distribution, KESTA_SCRIPT_END);
    }
    return command;
}

int current_stage(const Request &request, const AreaName &slot)
{
    TRACE(5, "[sysback2current] Current(area_flag:%d, distribution:%d, rbflg:%d)", request.area_flag,
          request.distribution, request.rbflg);
    if (request.rbflg == update_script && request.flash_copy && !copy_accept_archive()) {
        return KESTA_OK;  // silent on purpose: there is no accepted environment to update from
    }
    const kesta::CommandLine command = script_command(request);
    TRACE(4, "[sysback2current] SYSBACK(%s) ---> CURRENT(cmd:%s)", slot.c_str(), command.data());
    const int result = kestal_exec_cmd_by_system(command.data());
    if (result != 0) {
        FAILURE(COMMAND, result, 1,
                "[sysback2current] Script(Copy From System backup area to current Start) Exe Error "
                "result =%d",
                result);
        return KESTA_RESTORE_SCRIPT_FAILED;
    }
    TRACE(4,
          "[sysback2current] Script(Copy From System backup area to current Start) Exe Success. "
          "result=%d",
          result);
    return KESTA_OK;
}

bool has_switch_stage(int area_flag)
{
    return area_flag != no_switch_backup_side && area_flag != no_switch_accept_side;
}

}  // namespace

int kestal_sysback2current(const char *group, int switch_only, int area_flag, int rbflg, int distribution,
                           char *fileptr, int skip_flashcopy)
{
    TRACE(5, "[sysback2current] START(area_flag:%d)", area_flag);
    if (!kesta::is_group_folder(group)) {
        FAILURE(ARGUMENT, 0, 1, "[sysback2current] Group name ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    const Request request{group, area_flag, rbflg, distribution, fileptr, skip_flashcopy == 0};
    AreaName slot;
    kesta::TrackedBuffer data;
    int ret = KESTA_OK;
    if (has_switch_stage(area_flag)) {
        if (const int chosen = choose_slot(request, slot); chosen != KESTA_OK) {
            return chosen;
        }
        unsigned int size = 0;
        if (kestal_backup_rw(slot.c_str(), KESTA_FILE_READ, data.out(), &size) != KESTA_OK) {
            TRACE(1, "[sysback2current]  Read System backup area ERROR f_name=%s ", slot.c_str());
            return KESTA_RESTORE_READ_FAILED;
        }
        ret = slot_to_flash(slot, data.get(), size);
    }
    if (ret == KESTA_OK && switch_only != switch_stage_only) {
        ret = current_stage(request, slot);
    }
    TRACE(5, "[sysback2current] END ret=%d", ret);
    return ret;
}
