#include "kesta/nv_image.h"

#include "nv_image_layout.h"
#include "nv_items.h"
#include "trace.h"

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
    for (const kesta::NvItemRow &row : kesta::nv_item_rows) {
        if (row.item.id_type == id_type && row.item.controller == cnt_num) {
            *block_id = row.item.block_id;
            return KESTA_OK;
        }
    }
    FAILURE(ARGUMENT, 0, 1, "[kestal_get_block_id] Argument Error.(id_type=%d).", id_type);
    return KESTA_ERR_ARGUMENT;
}
