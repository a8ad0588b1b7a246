#include <errno.h>
#include <limits.h>
#include <string.h>

#include <array>

#include "controller_state.h"
#include "kesta/area_files.h"
#include "kesta/block_access.h"
#include "kesta/identity.h"
#include "kesta/nv_image.h"
#include "kesta/paths.h"
#include "kesta/versions.h"
#include "storage_places.h"
#include "text_field.h"
#include "trace.h"
#include "vpd_state.h"
#include "vpd_tool.h"

namespace {

using kesta::GuidText;
using kesta::to_disk;
using kesta::to_flash;

constexpr int changed = 1;

using IdentityText = kesta::TextField<KESTA_WWN_LENGTH>;

// What the tool printed; a text may be longer than it should be, and is no valid one then.
struct ToolIdentity {
    kesta::VpdLine wwn{};
    kesta::VpdLine serialno{};
    kesta::VpdLine guid{};

    bool is_valid() const
    {
        return strlen(wwn.data()) == KESTA_WWN_LENGTH && strlen(serialno.data()) == KESTA_SERIALNO_LENGTH &&
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
    int write_to_tool() const { return kestal_set_vpn_info(wwn.c_str(), serialno.c_str(), guid.c_str()); }
};

void log_lengths(const ToolIdentity &vpd, const char *flow, const char *source)
{
    TRACE(3,
          "[%s] vpd info length failed. so set vpdinfo from %s. len_wwn=%d len_serialno=%d "
          "len_guid=%d",
          flow, source, static_cast<int>(strlen(vpd.wwn.data())), static_cast<int>(strlen(vpd.serialno.data())),
          static_cast<int>(strlen(vpd.guid.data())));
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
    if (failed(kestal_update_vpdinfo_distribute_open(KESTA_FLASH_DIRECTORY, 0), flow,
               "update_vpdinfo_distribute_open") ||
        failed(kestal_update_vpdinfo_eeprom(vpd.wwn.data(), vpd.serialno.data()), flow, "update_vpdinfo_eeprom") ||
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
    const int sts = kestal_non_volatile_rw_func(block_id, KESTA_BLOCK_READ, value, KESTA_GUID_BYTES, nullptr);
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

void hdd_flow(ToolIdentity &vpd, GivenIdentity &disk, const char *wwn, const char *serialno, const char *guid)
{
    if (const int sts = kesta::read_vpd_tool(vpd.wwn.data(), vpd.serialno.data(), vpd.guid.data()); sts != KESTA_OK) {
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
    constexpr std::array<Area, 2> areas{
        {{KESTA_VER_AREA_BACKUP, "KESTA_VER_AREA_BACKUP"}, {KESTA_VER_AREA_REBOOT, "KESTA_VER_AREA_REBOOT"}}};
    for (const Area &area : areas) {
        if (const int sts = kestal_set_version(area.area, own, up_version); sts != KESTA_OK) {
            TRACE(1, "[kestal_CONT0_to_CONT1] kestal_set_version(%s) error. sts=%d up_version=%d", area.name, sts,
                  up_version);
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
    const std::array<Name, 2> names{
        {{KESTA_OFF, "KESTA_OFF", vpd_state.accept_name}, {KESTA_ON, "KESTA_ON", vpd_state.backup_name}}};
    for (const Name &name : names) {
        const int sts = kestal_change_address(vpd_state.accept_name, vpd_state.backup_name, name.flag);
        if (sts != KESTA_OK) {
            SYSTEM_FAILURE(error, 1, "[kestal_CONT0_to_CONT1] kestal_change_address(%s)(%s) error. sts=%d errno=%d",
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
    if (failed(kestal_update_vpdinfo_distribute_open(KESTA_MERGE_CACHE, to_disk), flow,
               "update_vpdinfo_distribute_open") ||
        failed(kestal_update_vpdinfo_eeprom(cnt0_wwn, hdd0_serialno), flow, "update_vpdinfo_eeprom") ||
        (!same(cnt0_wwn, own_wwn) && failed(kestal_update_host_info(cnt0_wwn, own_wwn), flow, "update_host_info()")) ||
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
    if (const int sts = kesta::read_vpd_tool(vpd.wwn.data(), vpd.serialno.data(), vpd.guid.data()); sts != KESTA_OK) {
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
          vpd.wwn.data(), vpd.serialno.data(), vpd.guid.data(), disk.wwn.c_str(), disk.serialno.c_str(),
          disk.guid.c_str(), KESTA_OK);
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
