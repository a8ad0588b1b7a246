#include "nv_items.h"

namespace {

constexpr bool every_one(const kesta::NvItemRow &) { return true; }
constexpr KESTA_NV_ITEM shown(const kesta::NvItemRow &row) { return row.item; }

constexpr auto items = kesta::view_of_items<every_one, shown>();

}  // namespace

const KESTA_NV_ITEM *kesta_nv_items(unsigned int *count)
{
    if (count) {
        *count = static_cast<unsigned int>(items.size());
    }
    return items.data();
}
