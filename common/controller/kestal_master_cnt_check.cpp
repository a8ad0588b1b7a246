#include <cstdint>

#include "controllers.h"
#include "kesta/controller.h"
#include "trace.h"
#include "vrbapi.h"

namespace {
constexpr std::uint8_t no_master = 255;
constexpr int is_master = 0;
constexpr int is_not_master = 1;
}  // namespace

int kestal_master_cnt_check(int cntno)
{
    TRACE(5, "[master_cnt_check] START");
    if (!kesta::is_controller(cntno)) {
        FAILURE(ARGUMENT, 0, 1, "[master_cnt_check] Argument ERROR(cnt_num=%d)", cntno);
        return KESTA_ERR_ARGUMENT;
    }
    std::uint8_t master = no_master;
    _VRBAPIERRINFO error{};
    int extra = 0;  // the platform fills it; nobody here needs it
    const int result = vrbgetsanfwinfo(VRB_SANFWINFO_MASTER, &master, &error, &extra);
    if (result != 0) {
        FAILURE(PLATFORM, result, 1,
                "[master_cnt_check] Get Master CNT Number ERROR result=[%d] func_name=[%.16s] "
                "s_errno=[%d]",
                result, error.func_name, error.s_errno);
        return KESTA_ERR;
    }
    const int ret = cntno == master ? is_master : is_not_master;
    TRACE(5, "[master_cnt_check] END ret=%d", ret);
    return ret;
}
