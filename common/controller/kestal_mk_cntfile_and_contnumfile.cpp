#include "kesta/controller.h"
#include "trace.h"

int kestal_mk_cntfile_and_contnumfile(int *own_number, int *controller_count)
{
    if (!own_number || !controller_count) {
        FAILURE(ARGUMENT, 0, 1, "[mk_cntfile_and_contnumfile] Argument ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    *own_number = kestal_get_cnt_num_from_cpinfo(KESTA_CPINFO_OWN_NUMBER);
    if (*own_number < 0) {
        TRACE(1, "[mk_cntfile_and_contnumfile]  MyCntNo Get Error. rtn=%d", *own_number);
        return KESTA_ERR_CNTFILE;
    }
    *controller_count = kestal_get_cnt_num_from_cpinfo(KESTA_CPINFO_CONTROLLER_COUNT);
    if (*controller_count < 0) {
        TRACE(1, "[mk_cntfile_and_contnumfile] CntNo Get Error. rtn=%d", *controller_count);
        return KESTA_ERR_CNTFILE;
    }
    return KESTA_OK;
}
