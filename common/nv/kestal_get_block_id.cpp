#include "kesta/nv_image.h"

#include <array>

#include "nv_image_layout.h"
#include "trace.h"

namespace {

struct IdTypeRow {
    int id_type;
    std::array<int, KESTA_CONTROLLERS> block_id;  // by controller number
};

constexpr std::array<IdTypeRow, 6> id_type2block_id{{
    {KESTA_IDTYPE_RESTORE_REQ, {1, 2, 3, 4}},
    {KESTA_IDTYPE_RESTORE_RES, {11, 12, 13, 14}},
    {KESTA_IDTYPE_LOCK, {41, 42, 43, 44}},
    {KESTA_IDTYPE_VERSION, {61, 62, 63, 64}},
    {KESTA_IDTYPE_STATUS, {71, 72, 73, 74}},
    {KESTA_IDTYPE_INNERLOCK, {101, 102, 103, 104}},
}};

}  // namespace

int kestal_get_block_id(int id_type, int cnt_num, int *block_id)
{
    if (static_cast<unsigned>(cnt_num) >= KESTA_CONTROLLERS) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_get_block_id] Argument Error.(cnt_num=%d).", cnt_num);
        return KESTA_ERR_ARGUMENT;
    }
    if (!block_id) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_get_block_id] Argument Error.(block_id=NULL).");
        return KESTA_ERR_ARGUMENT;
    }
    for (const IdTypeRow &row : id_type2block_id) {
        if (row.id_type == id_type) {
            *block_id = row.block_id[static_cast<unsigned>(cnt_num)];
            return KESTA_OK;
        }
    }
    FAILURE(ARGUMENT, 0, 1, "[kestal_get_block_id] Argument Error.(id_type=%d).", id_type);
    return KESTA_ERR_ARGUMENT;
}
