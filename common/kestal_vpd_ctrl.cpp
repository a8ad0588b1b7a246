#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <array>

#include "controller_state.h"
#include "kesta/area_files.h"
#include "kesta/backup_flows.h"
#include "kesta/block_access.h"
#include "kesta/controller.h"
#include "kesta/identity.h"
#include "kesta/nv_image.h"
#include "kesta/process.h"
#include "kesta/shell_word.h"
#include "kesta/versions.h"
#include "ownership.h"
#include "plain_file.h"
#include "storage_places.h"
#include "text_field.h"
#include "text_line.h"
#include "trace.h"
#include "vpd_state.h"
#include "vpd_tool.h"
#include "vrbapi.h"

namespace {

constexpr char separator = '-';
constexpr int hexadecimal = 16;

using GuidText = kesta::TextField<KESTA_GUID_TEXT_LENGTH>;

constexpr bool is_separator_place(int position)
{
    return position == 8 || position == 13 || position == 18 || position == 23;
}

constexpr bool has_separator_before(int byte)
{
    return byte == 4 || byte == 6 || byte == 8 || byte == 10;
}

int check_text(const char *text)
{
    const std::size_t length = strlen(text);
    if (length != KESTA_GUID_TEXT_LENGTH) {
        FAILURE(CONTENT, 0, 1, "[kestal_guid_str2bin] guid_str length error. guid_str_len=%d",
              static_cast<int>(length));
        return KESTA_ERR;
    }
    for (int i = 0; i < KESTA_GUID_TEXT_LENGTH; ++i) {
        if (is_separator_place(i)) {
            if (text[i] != separator) {
                FAILURE(CONTENT, 0, 1, "[kestal_guid_str2bin] guid_str format error. point=%d", i);
                return KESTA_ERR;
            }
        } else if (!isxdigit(static_cast<unsigned char>(text[i]))) {
            FAILURE(CONTENT, 0, 1, "[kestal_guid_str2bin] guid_str isxdigit() error. point=%d", i);
            return KESTA_ERR;
        }
    }
    return KESTA_OK;
}

void convert(const char *text, char *bytes)
{
    int byte = 0;
    for (int i = 0; i < KESTA_GUID_TEXT_LENGTH;) {
        if (is_separator_place(i)) {
            ++i;
            continue;
        }
        const std::array<char, 3> digits{text[i], text[i + 1], '\0'};
        bytes[byte++] = static_cast<char>(strtol(digits.data(), nullptr, hexadecimal));
        i += 2;
    }
}

}  // namespace

int kestal_guid_str2bin(const char *text, char *bytes)
{
    if (!text || !bytes) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_guid_str2bin] Argument Error.");
        return KESTA_ERR_ARGUMENT;
    }
    TRACE(5, "[kestal_guid_str2bin] START. guid_str=[%s]", text);
    const int ret = check_text(text);
    if (ret == KESTA_OK) {
        convert(text, bytes);
    }
    TRACE(3, "[kestal_guid_str2bin] END. guid_str=[%s] ret=[%d]", text, ret);
    return ret;
}

int kestal_guid_bin2str(const char *bytes, char *text)
{
    if (!bytes || !text) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_guid_bin2str] Argument Error.");
        return KESTA_ERR_ARGUMENT;
    }
    // It prints what the buffer holds before it is written, whatever that is: kept so.
    TRACE(5, "[kestal_guid_bin2str] START. guid_str=[%s]", GuidText(text).c_str());
    std::array<char, KESTA_GUID_TEXT_LENGTH + 1> formed{};
    char *to = formed.data();
    for (int i = 0; i < KESTA_GUID_BYTES; ++i) {
        if (has_separator_before(i)) {
            *to++ = separator;
        }
        snprintf(to, 3, "%02x", static_cast<unsigned char>(bytes[i]));
        to += 2;
    }
    memcpy(text, formed.data(), formed.size());
    TRACE(3, "[kestal_guid_bin2str] END. guid_str=[%s] ret=[%d]", text, KESTA_OK);
    return KESTA_OK;
}

// ----------------------------------------------------------------------- the staging tree's steps

namespace kesta {
int g_vpd_cntnum = -1;
int g_vpd_cnt_no = -1;
char g_accept_filename[KESTA_AREA_NAME_SIZE];
char g_backup_filename[KESTA_AREA_NAME_SIZE];
}

namespace {

constexpr const char *tree = "/var/run/kesta_sys/env_restore2";
constexpr const char *hosts_path = "/var/run/kesta_sys/env_restore2/C/etc/inet/hosts";
constexpr const char *guid_path = "/var/run/kesta_sys/env_restore2/C/etc/cp_guid";
constexpr int new_file = O_WRONLY | O_CREAT | O_TRUNC;
constexpr const char *boot_environment = "/boot/solaris/bootenv.rc";
constexpr const char *distribute_script = "/opt/kesta_sys/sbin/env_tarz_assign_distribute.sh";
constexpr const char *collect_script = "/opt/kesta_sys/sbin/env_tarz_assign_collect.sh";
constexpr const char *restore_group = "restore2.group";

constexpr int flow_controllers = 2;  // that the flows treat
constexpr int to_flash = 0;          // of collecting: the identity stays on this controller
constexpr int to_disk = 1;
constexpr int not_written = 1;
constexpr int changed = 1;

using HostName = std::array<char, 257>;
using HostNames = std::array<HostName, flow_controllers>;

const char *or_null(const char *text) { return text ? text : "(null)"; }

// Formats a text; false if it doesn't fit.
template <std::size_t Size, typename... Arguments>
__attribute__((format(printf, 2, 0))) bool form(std::array<char, Size> &text, const char *format,
                                                Arguments... arguments)
{
    const int length = snprintf(text.data(), text.size(), format, arguments...);
    return length >= 0 && static_cast<std::size_t>(length) < text.size();
}

bool form_host_names(HostNames &names, const char *wwn)
{
    return form(names[0], "%s-%d", wwn, 0) && form(names[1], "%s-%d", wwn, 1);
}

bool form_eeprom_command(kesta::CommandLine &command, int controller, const char *wwn,
                         const char *serialno)
{
    return form(command, "/usr/sbin/eeprom -f %s/%d%s%s%s%s%s", tree, controller, boot_environment,
                wwn ? " cp_wwn=" : "", wwn ? wwn : "", serialno ? " cp_serial_number=" : "",
                serialno ? serialno : "");
}

kesta::Path nodename_path(int controller)
{
    kesta::Path path{};
    form(path, "%s/%d/etc/nodename", tree, controller);
    return path;
}

// What was unpacked into the tree is somebody else's: none of it may lead the flows out of the tree.
int open_in_tree(const char *path, int flags)
{
    return kesta::open_plain_below(tree, path + strlen(tree), flags, kesta::new_text_file_mode);
}

int not_opened(const char *path)
{
    const int error = errno;
    FAILURE(SYSTEM, error, 1, "[update_host_info] fopen() error path=(%s) errno=%d", path, error);
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
    for (int i = 0; i < g_vpd_cntnum; ++i) {
        std::array<char, INET_ADDRSTRLEN> address{};
        const vrb_netconfig_t &record = records[i == g_vpd_cnt_no ? 0 : 1];
        inet_ntop(AF_INET, &record.address, address.data(), address.size());
        form(line, "%s CNT%d %s\n", address.data(), i, names[static_cast<std::size_t>(i)].data());
        if (const kesta::TextWritten result = kesta::write_text(file.get(), line.data());
            !result.complete()) {
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
    const kesta::Path path = nodename_path(g_vpd_cnt_no);
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
        const int error = errno;
        FAILURE(SYSTEM, error, 1, "[update_host_info] vrbgetnetconfig() error errno=%d", error);
        return ret;
    }
    HostNames names{};
    form_host_names(names, wwn_new);  // it has been seen to fit
    if (const int ret = write_hosts(records, names); ret != KESTA_OK) {
        return ret;
    }
    for (int i = 0; i < g_vpd_cntnum; ++i) {
        if (const int ret = write_nodename(i, names[static_cast<std::size_t>(i)]);
            ret != KESTA_OK) {
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
    {"nodename", true, "/etc/nodename", "/etc/nodename"},
    {"hosts", false, "/etc/inet/hosts", "/etc/inet/hosts"},
    {"hosts", true, boot_environment, boot_environment},  // said of another file: kept so
    {"cpguid", false, "/etc/cp_guid", "/etc/cp_guid"},
}};

int copy_to_system(const SystemCopy &copy)
{
    std::array<char, 16> part{};
    form(part, "%d", g_vpd_cnt_no);
    kesta::CommandLine command{};
    form(command, "/usr/bin/cp %s/%s%s %s > /dev/null 2>&1", tree, copy.is_own ? part.data() : "C",
         copy.from, copy.to);
    const int rtn = kestal_exec_cmd_by_system(command.data());
    if (rtn != 0) {
        const int error = errno;
        FAILURE(SYSTEM, error, 1, "[update_vpdinfo_collect_close] %s filecopy error cmd=(%s) rtn=%d errno=%d",
              copy.what, command.data(), rtn, error);
        return KESTA_ERR;
    }
    return KESTA_OK;
}

int collect(int flag)
{
    kesta::CommandLine command{};
    form(command, "/bin/sh %s %d > /dev/null 2>&1", collect_script, flag);
    const int rtn = kestal_exec_cmd_by_system(command.data());
    if (rtn != 0) {
        const int error = errno;
        FAILURE(SYSTEM, error, 1, "[update_vpdinfo_collect_close] backup.tar.Z collect Error. rtn=%d, errno=%d", rtn,
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
    set_name(g_accept_filename, "");
    set_name(g_backup_filename, "");
    int rtn = kestal_area_file_rw(KESTA_BLOCK_READ, g_accept_filename, nullptr);
    if (rtn != KESTA_OK) {
        const int error = errno;
        FAILURE(SYSTEM, error, 1, "[update_vpdinfo_collect_close] AcceptFileName read Failed. rtn=%d, errno=%d", rtn,
              error);
        return KESTA_ERR;
    }
    if (strncmp(g_accept_filename, KESTA_SLOT0, sizeof(g_accept_filename)) == 0) {
        set_name(g_backup_filename, KESTA_SLOT1);
    } else {
        set_name(g_backup_filename, KESTA_SLOT0);
        set_name(g_accept_filename, KESTA_SLOT1);
    }
    rtn = kestal_merge_file2accept(g_accept_filename);
    if (rtn != KESTA_OK) {
        const int error = errno;
        FAILURE(SYSTEM, error, 1, "[update_vpdinfo_collect_close] HDD write backup.tar.Z(%s) Failed. rtn=%d, errno=%d",
              kesta::AreaName(g_accept_filename).c_str(), rtn, error);
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
        !form(command, "/bin/sh %s %s > /dev/null 2>&1", distribute_script, directory)) {
        FAILURE(ARGUMENT, 0, 1, "[update_vpdinfo_distribute_open] Argument Error.");
        return KESTA_ERR_ARGUMENT;
    }
    if (flag == to_disk) {
        if (const int rtn = kestal_backup2tmp(restore_group, KESTA_OFF, nullptr, 1);
            rtn != KESTA_OK) {
            const int error = errno;
            FAILURE(SYSTEM, error, 1, "[update_vpdinfo_distribute_open] backup2tmp Error. rtn=%d, errno=%d", rtn,
                  error);
            return KESTA_ERR;
        }
    }
    if (const int rtn = kestal_exec_cmd_by_system(command.data()); rtn != 0) {
        const int error = errno;
        FAILURE(SYSTEM, error, 1, "[update_vpdinfo_distribute_open] backup.tar.Z distribute Error. rtn=%d, errno=%d",
              rtn, error);
        return KESTA_ERR;
    }
    return KESTA_OK;
}

int kestal_update_vpdinfo_eeprom(const char *wwn, const char *serialno)
{
    TRACE(4, "[update_vpdinfo_eeprom] Start. wwnstr=%s, snstr=%s", or_null(wwn), or_null(serialno));
    g_vpd_cntnum = flow_controllers;
    kesta::CommandLine command{};
    if (!kesta_is_shell_word(wwn) || !kesta_is_shell_word(serialno) ||
        !form_eeprom_command(command, 0, wwn, serialno)) {
        FAILURE(ARGUMENT, 0, 1, "[update_vpdinfo_eeprom] Argument Error.");
        return KESTA_ERR_ARGUMENT;
    }
    for (int i = 0; i < KESTA_CONTROLLERS && i < g_vpd_cntnum; ++i) {
        form_eeprom_command(command, i, wwn, serialno);
        TRACE(3, "[update_vpdinfo_eeprom] Update tmp eeprom (cntno:%d, cmd:%s)", i, command.data());
        if (const int rtn = kestal_exec_cmd_by_system(command.data()); rtn != 0) {
            const int error = errno;
            FAILURE(SYSTEM, error, 1, "[update_vpdinfo_eeprom] Update tmp eeprom Failed. rtn=%d, errno=%d", rtn,
                  error);
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
    // The messages spell their tag otherwise: kept so.
    kesta::UniqueFd file(open_in_tree(guid_path, new_file));
    if (!file) {
        const int error = errno;
        FAILURE(SYSTEM, error, 1, "[update_vdpinfo_guid] cp_guid open error filename=(%s) errno=%d", guid_path, error);
        return KESTA_ERR;
    }
    if (const kesta::TextWritten result = kesta::write_and_close_text(file, line.data());
        !result.complete()) {
        FAILURE(SYSTEM, result.error, 1, "[update_vdpinfo_guid] fputs() error path=(%s) errno=%d", guid_path, result.error);
        return KESTA_ERR;
    }
    return KESTA_OK;
}

int kestal_update_host_info(const char *wwn_new, const char *wwn_old)
{
    TRACE(5, "[update_host_info] Start. wwn_new=%s wwn_old=%s", or_null(wwn_new), or_null(wwn_old));
    HostNames names{};
    if (!wwn_new || !wwn_old || !form_host_names(names, wwn_new) ||
        !form_host_names(names, wwn_old)) {
        FAILURE(ARGUMENT, 0, 1, "[update_host_info] Argument Error.");
        return KESTA_ERR_ARGUMENT;
    }
    int ret = KESTA_ERR;
    if (g_vpd_cnt_no == -1) {
        ret = kestal_get_cnt_num_from_cpinfo(KESTA_CPINFO_OWN_NUMBER);
        if (static_cast<unsigned>(ret) >= flow_controllers) {
            TRACE(1, "[update_host_info] kestal_get_my_cnt_num_cpinfo() Error. ret=%d ", ret);
            return ret;
        }
        g_vpd_cnt_no = ret;
    }
    HostName now{};
    if (!read_nodename(now, ret)) {
        // In the first call of a process this is the own number, on controller 0 a success: kept so.
        return ret;
    }
    const char *by_wwn = names[static_cast<std::size_t>(g_vpd_cnt_no)].data();
    const bool is_same = strcmp(now.data(), by_wwn) == 0;
    TRACE(3,
          "[update_host_info] it is %s wwn_hostname=[%s] and now_hostname=[%s] g_vpd_cnt_no=[%d]. ",
          is_same ? "same" : "different", by_wwn, now.data(), g_vpd_cnt_no);
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

// ------------------------------------------------------------------------------------- the flows

namespace {

using IdentityText = kesta::TextField<KESTA_WWN_LENGTH>;

// What the tool printed; a text may be longer than it should be, and is no valid one then.
struct ToolIdentity {
    kesta::VpdLine wwn{};
    kesta::VpdLine serialno{};
    kesta::VpdLine guid{};

    bool is_valid() const
    {
        return strlen(wwn.data()) == KESTA_WWN_LENGTH &&
               strlen(serialno.data()) == KESTA_SERIALNO_LENGTH &&
               strlen(guid.data()) == KESTA_GUID_TEXT_LENGTH;
    }
};

struct GivenIdentity {
    IdentityText wwn;
    IdentityText serialno;
    GuidText guid;

    bool equals(const ToolIdentity &tool) const
    {
        return strncmp(wwn.c_str(), tool.wwn.data(), KESTA_WWN_LENGTH) == 0 &&
               strncmp(serialno.c_str(), tool.serialno.data(), KESTA_SERIALNO_LENGTH) == 0 &&
               strncmp(guid.c_str(), tool.guid.data(), KESTA_GUID_TEXT_LENGTH) == 0;
    }
    int write_to_tool() const
    {
        return kestal_set_vpn_info(wwn.c_str(), serialno.c_str(), guid.c_str());
    }
};

void log_lengths(const ToolIdentity &vpd, const char *flow, const char *source)
{
    TRACE(3,
          "[%s] vpd info length failed. so set vpdinfo from %s. len_wwn=%d len_serialno=%d "
          "len_guid=%d",
          flow, source, static_cast<int>(strlen(vpd.wwn.data())),
          static_cast<int>(strlen(vpd.serialno.data())), static_cast<int>(strlen(vpd.guid.data())));
}

// Each step of a flow that fails is logged, under a name that is not always its own.
bool failed(int sts, const char *flow, const char *step)
{
    if (sts == KESTA_OK) {
        return false;
    }
    TRACE(1, "[%s] %s error. sts=%d", flow, step, sts);
    return true;
}

int carry_to_flash(const ToolIdentity &vpd, const char *own_wwn)
{
    constexpr const char *flow = "vpd_to_flash";
    if (failed(kestal_update_vpdinfo_distribute_open(kesta::flash_directory, 0), flow,
               "update_vpdinfo_distribute_open") ||
        failed(kestal_update_vpdinfo_eeprom(vpd.wwn.data(), vpd.serialno.data()), flow,
               "update_vpdinfo_eeprom") ||
        failed(kestal_update_vpdinfo_guid(vpd.guid.data()), flow, "update_vpdinfo_guid") ||
        failed(kestal_update_host_info(vpd.wwn.data(), own_wwn), flow, "update_host_info()") ||
        failed(kestal_update_vpdinfo_collect_close(to_flash), flow, "update_host_info()")) {
        return KESTA_ERR;
    }
    return changed;
}

int flash_from_tool(const ToolIdentity &vpd, const GivenIdentity &given)
{
    if (!vpd.is_valid()) {
        log_lengths(vpd, "kestal_vpd_to_flash", "flashinfo");
        if (const int sts = given.write_to_tool(); sts != KESTA_OK) {
            TRACE(1, "[kestal_vpd_to_flash] kestal_set_vpn_info() error. sts=%d", sts);
        }
        return KESTA_OK;
    }
    return given.equals(vpd) ? KESTA_OK : carry_to_flash(vpd, given.wwn.c_str());
}

// A value of the disk copy: the caller's, or that of the NV image.
bool take_from_disk(int block_id, const char *name, const char *given, char *value)
{
    if (given) {
        memcpy(value, given, strnlen(given, KESTA_GUID_BYTES));
        return true;
    }
    const int sts = kestal_non_volatile_rw_func(block_id, KESTA_BLOCK_READ, value, KESTA_GUID_BYTES,
                                                nullptr);
    if (sts != KESTA_OK) {
        TRACE(1, "[kestal_vpd_to_hdd] kestal_non_volatile_rw() Read HDD %s error. sts=%d", name, sts);
    }
    return sts == KESTA_OK;
}

// The GUID is bytes, not text: zeros don't end it.
bool take_guid_from_disk(const char *given, std::array<char, KESTA_GUID_BYTES> &bytes)
{
    if (given) {
        memcpy(bytes.data(), given, bytes.size());
        return true;
    }
    return take_from_disk(KESTA_BLOCK_GUID, "GUID", nullptr, bytes.data());
}

void tool_from_disk(const ToolIdentity &vpd, const GivenIdentity &disk)
{
    if (!vpd.is_valid()) {
        log_lengths(vpd, "kestal_vpd_to_hdd", "hddinfo");
    } else if (!disk.equals(vpd)) {
        TRACE(3,
              "[kestal_vpd_to_hdd] it is different VPN and HDD. so set vpdinfo from hddinfo. "
              "hdd_wwn=[%s] hdd_serialno=[%s] hdd_guid=[%s]",
              disk.wwn.c_str(), disk.serialno.c_str(), disk.guid.c_str());
    } else {
        return;
    }
    if (const int sts = disk.write_to_tool(); sts != KESTA_OK) {
        TRACE(1, "[kestal_vpd_to_hdd] kestal_set_vpn_info() error. sts=%d", sts);
    }
}

void hdd_flow(ToolIdentity &vpd, GivenIdentity &disk, const char *wwn, const char *serialno,
              const char *guid)
{
    if (const int sts =
            kesta::read_vpd_tool(vpd.wwn.data(), vpd.serialno.data(), vpd.guid.data());
        sts != KESTA_OK) {
        TRACE(1, "[kestal_vpd_to_hdd] kestal_get_vpn_info() error. sts=%d", sts);
        return;
    }
    std::array<char, KESTA_GUID_BYTES> guid_bytes{};
    if (!take_from_disk(KESTA_BLOCK_WWN, "WWN", wwn, disk.wwn.data()) ||
        !take_from_disk(KESTA_BLOCK_SERIALNO, "SERIALNO", serialno, disk.serialno.data()) ||
        !take_guid_from_disk(guid, guid_bytes)) {
        return;
    }
    (void)kestal_guid_bin2str(guid_bytes.data(), disk.guid.data());  // it has no way to fail
    tool_from_disk(vpd, disk);
}

constexpr int highest_version = INT_MAX;

int raise_versions()
{
    const int own = kesta::own_controller();
    const int version = kestal_read_version(KESTA_VER_AREA_BACKUP, own, 1);
    if (version < 1) {
        TRACE(1, "[kestal_CONT0_to_CONT1] kestal_version_up() error. up_version=%d", version);
        return KESTA_ERR;
    }
    const int up_version = version == highest_version ? 1 : version + 1;
    struct Area {
        int area;
        const char *name;
    };
    constexpr std::array<Area, 2> areas{{{KESTA_VER_AREA_BACKUP, "KESTA_VER_AREA_BACKUP"},
                                         {KESTA_VER_AREA_REBOOT, "KESTA_VER_AREA_REBOOT"}}};
    for (const Area &area : areas) {
        if (const int sts = kestal_set_version(area.area, own, up_version); sts != KESTA_OK) {
            TRACE(1, "[kestal_CONT0_to_CONT1] kestal_set_version(%s) error. sts=%d up_version=%d",
                  area.name, sts, up_version);
            return KESTA_ERR;
        }
    }
    return KESTA_OK;
}

int name_slots()
{
    struct Name {
        int flag;
        const char *flag_name;
        const char *slot;
    };
    const std::array<Name, 2> names{{{KESTA_OFF, "KESTA_OFF", g_accept_filename},
                                     {KESTA_ON, "KESTA_ON", g_backup_filename}}};
    for (const Name &name : names) {
        const int sts = kestal_change_address(g_accept_filename, g_backup_filename, name.flag);
        if (sts != KESTA_OK) {
            const int error = errno;
            FAILURE(SYSTEM, error, 1, "[kestal_CONT0_to_CONT1] kestal_change_address(%s)(%s) error. sts=%d errno=%d",
                  name.flag_name, kesta::AreaName(name.slot).c_str(), sts, error);
            return KESTA_ERR;
        }
    }
    return KESTA_OK;
}

bool same(const char *a, const char *b) { return strncmp(a, b, KESTA_WWN_LENGTH) == 0; }

int carry_to_own(const char *cnt0_wwn, const char *own_wwn, const char *hdd0_serialno)
{
    constexpr const char *flow = "kestal_CONT0_to_CONT1";
    if (failed(kestal_update_vpdinfo_distribute_open(kesta::merge_cache, to_disk), flow,
               "update_vpdinfo_distribute_open") ||
        failed(kestal_update_vpdinfo_eeprom(cnt0_wwn, hdd0_serialno), flow,
               "update_vpdinfo_eeprom") ||
        (!same(cnt0_wwn, own_wwn) &&
         failed(kestal_update_host_info(cnt0_wwn, own_wwn), flow, "update_host_info()")) ||
        failed(kestal_update_vpdinfo_collect_close(to_disk), flow, "update_host_info()")) {
        return KESTA_ERR;
    }
    return raise_versions() == KESTA_OK && name_slots() == KESTA_OK ? changed : KESTA_ERR;
}

}  // namespace

int kestal_vpd_to_flash(char *wwn, char *serialno, char *guid)
{
    TRACE(5, "[kestal_vpd_to_flash] START");
    if (!wwn || !serialno || !guid) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_vpd_to_flash] Argument Error.");
        return KESTA_ERR_ARGUMENT;
    }
    ToolIdentity vpd;
    int ret = KESTA_OK;
    if (const int sts =
            kesta::read_vpd_tool(vpd.wwn.data(), vpd.serialno.data(), vpd.guid.data());
        sts != KESTA_OK) {
        TRACE(1, "[kestal_vpd_to_flash] kestal_get_vpn_info() error. sts=%d", sts);
    } else {
        ret = flash_from_tool(vpd, {IdentityText(wwn), IdentityText(serialno), GuidText(guid)});
    }
    if (ret == changed) {
        memcpy(wwn, vpd.wwn.data(), KESTA_WWN_LENGTH);
        memcpy(serialno, vpd.serialno.data(), KESTA_SERIALNO_LENGTH);
        memcpy(guid, vpd.guid.data(), KESTA_GUID_TEXT_LENGTH);
    }
    TRACE(3,
          "[kestal_vpd_to_flash] END vpd_wwn=[%s] vpd_serialno=[%s] vpd_guid=[%s] cnt_wwn=[%s] "
          "cnt_serialno=[%s] cnt_guid=[%s] ret=[%d] ",
          vpd.wwn.data(), vpd.serialno.data(), vpd.guid.data(), IdentityText(wwn).c_str(),
          IdentityText(serialno).c_str(), GuidText(guid).c_str(), ret);
    return ret;
}

int kestal_vpd_to_hdd(const char *wwn, const char *serialno, const char *guid)
{
    TRACE(5, "[kestal_vpd_to_hdd] START");
    ToolIdentity vpd;
    GivenIdentity disk;
    hdd_flow(vpd, disk, wwn, serialno, guid);
    TRACE(3,
          "[kestal_vpd_to_hdd] END vpd_wwn=[%s] vpd_serialno=[%s] vpd_guid=[%s] hdd_wwn=[%s] "
          "hdd_serialno=[%s] hdd_guid=[%s]ret=[%d]",
          vpd.wwn.data(), vpd.serialno.data(), vpd.guid.data(), disk.wwn.c_str(),
          disk.serialno.c_str(), disk.guid.c_str(), KESTA_OK);
    return KESTA_OK;
}

int kestal_CONT0_to_CONT1(const char *cnt0_wwn, const char *own_wwn, const char *hdd0_serialno,
                          const char *hdd1_serialno)
{
    TRACE(5, "[kestal_CONT0_to_CONT1] START");
    if (!cnt0_wwn || !own_wwn || !hdd0_serialno || !hdd1_serialno) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_CONT0_to_CONT1] Argument Error.");
        return KESTA_ERR_ARGUMENT;
    }
    const IdentityText wwn0(cnt0_wwn);
    const IdentityText wwn1(own_wwn);
    const IdentityText serialno0(hdd0_serialno);
    const IdentityText serialno1(hdd1_serialno);
    int ret = KESTA_OK;
    if (!same(wwn0.c_str(), wwn1.c_str()) || !same(serialno0.c_str(), serialno1.c_str())) {
        ret = carry_to_own(wwn0.c_str(), wwn1.c_str(), serialno0.c_str());
    }
    TRACE(3,
          "[kestal_CONT0_to_CONT1] END cnt0_wwn=[%s] mycnt_wwn=[%s] hdd0_serialno=[%s] "
          "hdd1_serialno=[%s] ret=[%d] ",
          wwn0.c_str(), wwn1.c_str(), serialno0.c_str(), serialno1.c_str(), ret);
    return ret;
}
