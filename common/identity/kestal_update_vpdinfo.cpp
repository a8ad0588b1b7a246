#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include <array>

#include "formed_text.h"
#include "kesta/area_files.h"
#include "kesta/backup_flows.h"
#include "kesta/controller.h"
#include "kesta/identity.h"
#include "kesta/paths.h"
#include "kesta/process.h"
#include "kesta/shell_word.h"
#include "ownership.h"
#include "plain_file.h"
#include "slot_names.h"
#include "storage_places.h"
#include "text_field.h"
#include "text_line.h"
#include "trace.h"
#include "vpd_state.h"
#include "vrbapi.h"

namespace kesta {
constinit VpdState vpd_state;
}

namespace {

constexpr const char *tree = KESTA_STAGING_TREE;
constexpr const char *hosts_path = KESTA_STAGING_TREE "/C" KESTA_HOSTS_FILE;
constexpr const char *guid_path = KESTA_STAGING_TREE "/C" KESTA_GUID_FILE;
constexpr int new_file = O_WRONLY | O_CREAT | O_TRUNC;
constexpr const char *restore_group = "restore2.group";

constexpr int flow_controllers = 2;  // that the flows treat
constexpr int not_written = 1;

using kesta::form;
using kesta::or_null;
using kesta::to_disk;
using kesta::to_flash;

using HostName = std::array<char, 257>;
using HostNames = std::array<HostName, flow_controllers>;

bool form_host_names(HostNames &names, const char *wwn)
{
    return form(names[0], "%s-%d", wwn, 0) && form(names[1], "%s-%d", wwn, 1);
}

bool form_eeprom_command(kesta::CommandLine &command, int controller, const char *wwn, const char *serialno)
{
    return form(command, KESTA_EEPROM_PROGRAM " -f %s/%d%s%s%s%s%s", tree, controller, KESTA_BOOT_ENVIRONMENT,
                wwn ? " cp_wwn=" : "", wwn ? wwn : "", serialno ? " cp_serial_number=" : "", serialno ? serialno : "");
}

kesta::Path nodename_path(int controller)
{
    kesta::Path path{};
    form(path, "%s/%d%s", tree, controller, KESTA_NODENAME_FILE);
    return path;
}

// What was unpacked into the tree is somebody else's: none of it may lead the flows out of the tree.
int open_in_tree(const char *path, int flags)
{
    return kesta::open_plain_below(tree, path + strlen(tree), flags, kesta::new_text_file_mode);
}

int not_opened(const char *path)
{
    SYSTEM_FAILURE(error, 1, "[update_host_info] fopen() error path=(%s) errno=%d", path, error);
    return not_written;
}

int not_whole(const char *path, const char *line, int error)
{
    FAILURE(SYSTEM, error, 1, "[update_host_info] fputs() error path=(%s) str=(%s)errno=%d", path, line, error);
    return not_written;
}

// The table of the controllers' addresses and names.
int write_hosts(const std::array<vrb_netconfig_t, 2> &records, const HostNames &names)
{
    kesta::UniqueFd file(open_in_tree(hosts_path, new_file));
    if (!file) {
        return not_opened(hosts_path);
    }
    std::array<char, sizeof(HostName) + INET_ADDRSTRLEN + 16> line{};
    for (int i = 0; i < vpd_state.controllers; ++i) {
        std::array<char, INET_ADDRSTRLEN> address{};
        const vrb_netconfig_t &record = records[i == vpd_state.own_number ? 0 : 1];
        inet_ntop(AF_INET, &record.address, address.data(), address.size());
        form(line, "%s CNT%d %s\n", address.data(), i, names[static_cast<std::size_t>(i)].data());
        if (const kesta::TextWritten result = kesta::write_text(file.get(), line.data()); !result.complete()) {
            return not_whole(hosts_path, line.data(), result.error);
        }
    }
    return file.close() == 0 ? KESTA_OK : not_whole(hosts_path, line.data(), errno);
}

int write_nodename(int controller, const HostName &name)
{
    const kesta::Path path = nodename_path(controller);
    kesta::UniqueFd file(open_in_tree(path.data(), new_file));
    if (!file) {
        return not_opened(path.data());
    }
    std::array<char, sizeof(HostName) + 1> line{};
    form(line, "%s\n", name.data());
    const kesta::TextWritten result = kesta::write_and_close_text(file, line.data());
    return result.complete() ? KESTA_OK : not_whole(path.data(), line.data(), result.error);
}

// The first line, at most 256 characters. Returns whether it could be read, and logs if not.
bool read_nodename(HostName &name, int ret)
{
    const kesta::Path path = nodename_path(vpd_state.own_number);
    const kesta::FilePtr file(kesta::stream_of(open_in_tree(path.data(), O_RDONLY)));
    if (!file) {
        TRACE(1, "[update_host_info] nodenamefile(%s) open failed. ret=%d", path.data(), ret);
        return false;
    }
    if (!fgets(name.data(), static_cast<int>(name.size()), file.get())) {
        TRACE(1, "[update_host_info] nodenamefile(%s) read failed. ret=%d", path.data(), ret);
        return false;
    }
    name[strcspn(name.data(), "\n")] = '\0';
    TRACE(3, "[update_host_info] %s hostname = %s", path.data(), name.data());
    return true;
}

int rename_hosts(const char *wwn_new)
{
    std::array<vrb_netconfig_t, 2> records{};
    if (const int ret = vrbgetnetconfig(records.data()); ret != 0) {
        SYSTEM_FAILURE(error, 1, "[update_host_info] vrbgetnetconfig() error errno=%d", error);
        return ret;
    }
    HostNames names{};
    form_host_names(names, wwn_new);  // it has been seen to fit
    if (const int ret = write_hosts(records, names); ret != KESTA_OK) {
        return ret;
    }
    for (int i = 0; i < vpd_state.controllers; ++i) {
        if (const int ret = write_nodename(i, names[static_cast<std::size_t>(i)]); ret != KESTA_OK) {
            return ret;
        }
    }
    return KESTA_OK;
}

// A copy from the tree to the running system, and what its failure is called.
struct SystemCopy {
    const char *what;
    bool is_own;  // from this controller's part of the tree, otherwise from the common part
    const char *from;
    const char *to;
};
constexpr std::array<SystemCopy, 4> system_copies{{
    {"nodename", true, KESTA_NODENAME_FILE, KESTA_NODENAME_FILE},
    {"hosts", false, KESTA_HOSTS_FILE, KESTA_HOSTS_FILE},
    {"hosts", true, KESTA_BOOT_ENVIRONMENT,
     KESTA_BOOT_ENVIRONMENT},  // "hosts" for this one too: logs are searched for that text
    {"cpguid", false, KESTA_GUID_FILE, KESTA_GUID_FILE},
}};

int copy_to_system(const SystemCopy &copy)
{
    std::array<char, 16> part{};
    form(part, "%d", vpd_state.own_number);
    kesta::CommandLine command{};
    form(command, "/usr/bin/cp %s/%s%s %s > /dev/null 2>&1", tree, copy.is_own ? part.data() : "C", copy.from, copy.to);
    const int rtn = kestal_exec_cmd_by_system(command.data());
    if (rtn != 0) {
        SYSTEM_FAILURE(error, 1, "[update_vpdinfo_collect_close] %s filecopy error cmd=(%s) rtn=%d errno=%d", copy.what,
                       command.data(), rtn, error);
        return KESTA_ERR;
    }
    return KESTA_OK;
}

int collect(int flag)
{
    kesta::CommandLine command{};
    form(command, "/bin/sh %s %d > /dev/null 2>&1", KESTA_COLLECT_SCRIPT, flag);
    const int rtn = kestal_exec_cmd_by_system(command.data());
    if (rtn != 0) {
        SYSTEM_FAILURE(error, 1, "[update_vpdinfo_collect_close] backup.tar.Z collect Error. rtn=%d, errno=%d", rtn,
                       error);
        return KESTA_ERR;
    }
    return KESTA_OK;
}

void set_name(char (&field)[KESTA_AREA_NAME_SIZE], const char *name)
{
    memset(field, 0, sizeof(field));
    memcpy(field, name, strlen(name));
}

int write_accept_slot()
{
    set_name(vpd_state.accept_name, "");
    set_name(vpd_state.backup_name, "");
    int rtn = kestal_area_file_rw(KESTA_BLOCK_READ, vpd_state.accept_name, nullptr);
    if (rtn != KESTA_OK) {
        SYSTEM_FAILURE(error, 1, "[update_vpdinfo_collect_close] AcceptFileName read Failed. rtn=%d, errno=%d", rtn,
                       error);
        return KESTA_ERR;
    }
    if (!kesta::is_slot_name(vpd_state.accept_name)) {
        set_name(vpd_state.accept_name, KESTA_SLOT1);
    }
    set_name(vpd_state.backup_name, kesta::other_slot(vpd_state.accept_name));
    rtn = kestal_merge_file2accept(vpd_state.accept_name);
    if (rtn != KESTA_OK) {
        SYSTEM_FAILURE(error, 1, "[update_vpdinfo_collect_close] HDD write backup.tar.Z(%s) Failed. rtn=%d, errno=%d",
                       kesta::AreaName(vpd_state.accept_name).c_str(), rtn, error);
        return KESTA_ERR;
    }
    return KESTA_OK;
}

}  // namespace

int kestal_update_vpdinfo_distribute_open(const char *directory, int flag)
{
    TRACE(4, "[update_vpdinfo_distribute_open] Start. path=%s, flag=%d", or_null(directory), flag);
    kesta::CommandLine command{};
    if (!directory || !kesta_is_shell_word(directory) ||
        !form(command, "/bin/sh %s %s > /dev/null 2>&1", KESTA_DISTRIBUTE_SCRIPT, directory)) {
        FAILURE(ARGUMENT, 0, 1, "[update_vpdinfo_distribute_open] Argument Error.");
        return KESTA_ERR_ARGUMENT;
    }
    if (flag == to_disk) {
        if (const int rtn = kestal_backup2tmp(restore_group, KESTA_OFF, nullptr, 1); rtn != KESTA_OK) {
            SYSTEM_FAILURE(error, 1, "[update_vpdinfo_distribute_open] backup2tmp Error. rtn=%d, errno=%d", rtn, error);
            return KESTA_ERR;
        }
    }
    if (const int rtn = kestal_exec_cmd_by_system(command.data()); rtn != 0) {
        SYSTEM_FAILURE(error, 1, "[update_vpdinfo_distribute_open] backup.tar.Z distribute Error. rtn=%d, errno=%d",
                       rtn, error);
        return KESTA_ERR;
    }
    return KESTA_OK;
}

int kestal_update_vpdinfo_eeprom(const char *wwn, const char *serialno)
{
    TRACE(4, "[update_vpdinfo_eeprom] Start. wwnstr=%s, snstr=%s", or_null(wwn), or_null(serialno));
    vpd_state.controllers = flow_controllers;
    kesta::CommandLine command{};
    if (!kesta_is_shell_word(wwn) || !kesta_is_shell_word(serialno) ||
        !form_eeprom_command(command, 0, wwn, serialno)) {
        FAILURE(ARGUMENT, 0, 1, "[update_vpdinfo_eeprom] Argument Error.");
        return KESTA_ERR_ARGUMENT;
    }
    for (int i = 0; i < KESTA_CONTROLLERS && i < vpd_state.controllers; ++i) {
        form_eeprom_command(command, i, wwn, serialno);
        TRACE(3, "[update_vpdinfo_eeprom] Update tmp eeprom (cntno:%d, cmd:%s)", i, command.data());
        if (const int rtn = kestal_exec_cmd_by_system(command.data()); rtn != 0) {
            SYSTEM_FAILURE(error, 1, "[update_vpdinfo_eeprom] Update tmp eeprom Failed. rtn=%d, errno=%d", rtn, error);
            return KESTA_ERR;
        }
    }
    TRACE(3, "[update_vpdinfo_eeprom] Update tmp eeprom Success.");
    return KESTA_OK;
}

int kestal_update_vpdinfo_guid(const char *guid)
{
    TRACE(4, "[update_vpdinfo_guid] Start. arg_guidstr");
    std::array<char, 64> line{};
    if (!guid || !form(line, "%s\n", guid)) {
        FAILURE(ARGUMENT, 0, 1, "[update_vpdinfo_guid] Argument Error.");
        return KESTA_ERR_ARGUMENT;
    }
    // The failures spell their tag "vdpinfo", the first line "vpdinfo": logs are searched for both as they are.
    kesta::UniqueFd file(open_in_tree(guid_path, new_file));
    if (!file) {
        SYSTEM_FAILURE(error, 1, "[update_vdpinfo_guid] cp_guid open error filename=(%s) errno=%d", guid_path, error);
        return KESTA_ERR;
    }
    if (const kesta::TextWritten result = kesta::write_and_close_text(file, line.data()); !result.complete()) {
        FAILURE(SYSTEM, result.error, 1, "[update_vdpinfo_guid] fputs() error path=(%s) errno=%d", guid_path,
                result.error);
        return KESTA_ERR;
    }
    return KESTA_OK;
}

int kestal_update_host_info(const char *wwn_new, const char *wwn_old)
{
    TRACE(5, "[update_host_info] Start. wwn_new=%s wwn_old=%s", or_null(wwn_new), or_null(wwn_old));
    HostNames names{};
    if (!wwn_new || !wwn_old || !form_host_names(names, wwn_new) || !form_host_names(names, wwn_old)) {
        FAILURE(ARGUMENT, 0, 1, "[update_host_info] Argument Error.");
        return KESTA_ERR_ARGUMENT;
    }
    int ret = KESTA_ERR;
    if (vpd_state.own_number == -1) {
        ret = kestal_get_cnt_num_from_cpinfo(KESTA_CPINFO_OWN_NUMBER);
        if (static_cast<unsigned>(ret) >= flow_controllers) {
            TRACE(1, "[update_host_info] kestal_get_my_cnt_num_cpinfo() Error. ret=%d ", ret);
            return ret;
        }
        vpd_state.own_number = ret;
    }
    HostName now{};
    if (!read_nodename(now, ret)) {
        // In the first call of a process this is the own number: a success on controller 0, a failure to the flows on
        // the other one. Programs that call the step by itself rely on that result.
        return ret;
    }
    const char *by_wwn = names[static_cast<std::size_t>(vpd_state.own_number)].data();
    const bool is_same = strcmp(now.data(), by_wwn) == 0;
    TRACE(3, "[update_host_info] it is %s wwn_hostname=[%s] and now_hostname=[%s] g_vpd_cnt_no=[%d]. ",
          is_same ? "same" : "different", by_wwn, now.data(), vpd_state.own_number);
    if (!is_same) {
        return KESTA_OK;  // the administrator has named the controller
    }
    ret = rename_hosts(wwn_new);
    if (ret != KESTA_OK) {
        return ret;
    }
    TRACE(3, "[update_host_info] END wwn_new=[%s] wwn_old=[%s] ret=[%d]", wwn_new, wwn_old, ret);
    return KESTA_OK;
}

int kestal_update_vpdinfo_collect_close(int flag)
{
    TRACE(4, "[update_vpdinfo_collect_close] Start. flag=%d", flag);
    if (flag == to_flash) {
        for (const SystemCopy &copy : system_copies) {
            if (copy_to_system(copy) != KESTA_OK) {
                return KESTA_ERR;
            }
        }
        return collect(flag);
    }
    if (collect(flag) != KESTA_OK) {
        return KESTA_ERR;
    }
    return flag == to_disk ? write_accept_slot() : KESTA_OK;
}
