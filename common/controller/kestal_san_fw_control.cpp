#include <cstdint>

#include "kesta/controller.h"
#include "sanfwctl.h"
#include "trace.h"

namespace {

constexpr int plain_form = 0;
constexpr int extended_form = 1;
constexpr int no_status = 0;
constexpr int refined_by_card = 1;  // the one state that the card status says more about
constexpr int log_status = 1;

struct StatusBytes {
    std::uint8_t controller;
    std::uint8_t card;
};

int status_of(StatusBytes bytes)
{
    const int status = bytes.controller >> 4;
    if (status == refined_by_card && (bytes.card == 2 || bytes.card == 4)) {
        return bytes.card;
    }
    return status;
}

// bytes is null for a controller that the record doesn't have.
int report(int log_flag, int cntno, const StatusBytes *bytes)
{
    const int status = bytes ? status_of(*bytes) : no_status;
    if (status != no_status && log_flag == log_status) {
        TRACE(3, "[san_fw_get_cntstatus] CNT[%d] cnt_status=%d hd_status=%d", cntno, status, bytes->card);
    }
    TRACE(5, "[san_fw_get_cntstatus] END status=%d", status);
    return status;
}

int refuse(int rtn)
{
    FAILURE(PLATFORM, rtn, 1, "[san_fw_get_cntstatus] Get State Err. rtn=%d", rtn);
    return KESTA_ERR;
}

}  // namespace

int kestal_san_fw_get_cntstatus(int log_flag, int cntno)
{
    TRACE(5, "[san_fw_get_cntstatus] START");
    sanfw_getstatus_out out{};
    const int rtn = zKTsanfwctl_get_status(plain_form, &out);
    if (rtn != 0) {
        return refuse(rtn);
    }
    const StatusBytes bytes[] = {{out.cont0_sts, out.card0_sts}, {out.cont1_sts, out.card1_sts}};
    return report(log_flag, cntno, cntno == 0 || cntno == 1 ? &bytes[cntno] : nullptr);
}

int kestal_san_fw_get_cntstatus_ex(int log_flag, int cntno)
{
    TRACE(5, "[san_fw_get_cntstatus] START");
    sanfw_getstatus_ex_out out{};
    const int rtn = zKTsanfwctl_get_status_ex(extended_form, &out);
    if (rtn != 0) {
        return refuse(rtn);
    }
    const auto index = static_cast<unsigned>(cntno);
    if (index >= KESTA_CONTROLLERS) {
        return report(log_flag, cntno, nullptr);
    }
    const StatusBytes bytes{out.cont_sts[index], out.card_sts[index]};
    return report(log_flag, cntno, &bytes);
}
