#include <array>

#include "kesta/controller.h"
#include "kesta/paths.h"
#include "trace.h"
#include "vrbapi.h"

namespace {

struct NumberFileRow {
    const char *path;
    unsigned char flag;
    int min;
    int max;
};

// The option number is the row's index.
constexpr std::array<NumberFileRow, 2> number_files{{
    {KESTA_OWN_NUMBER_FILE, 1, 0, 3},
    {KESTA_CONTROLLER_COUNT_FILE, 1, 1, 4},
}};

}  // namespace

int kestal_get_cnt_num_file(int option)
{
    if (static_cast<unsigned>(option) >= number_files.size()) {
        return KESTA_ERR;
    }
    const NumberFileRow &row = number_files[static_cast<unsigned>(option)];
    int value = -1;
    _VRBAPIERRINFO error{};
    const int rtn = vrbapi_getint_from_file(row.path, row.flag, row.min, row.max, &value, &error);
    if (rtn != 0) {
        FAILURE(SYSTEM, error.s_errno, 1,
                "vrb_getint_from_file[%d] failed. ret=(%d) path=(%s) func_name=(%.16s) errno=%d", option, rtn, row.path,
                error.func_name, error.s_errno);
        value = KESTA_ERR;
    }
    TRACE(5, "[kestal_get_cnt_num_file] Get My CNT Number End. cnt_num=%d", value);
    return value;
}
