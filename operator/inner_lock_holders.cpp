#include "inner_lock_holders.h"

#include <kesta/kesta.h>

#include <array>

namespace engine {

std::string inner_lock_text()
{
    std::array<KESTA_INNERLOCK_BUF, KESTA_CONTROLLERS> slots{};
    if (kestal_non_volatile_rw_memory(KESTA_BLOCK_INNERLOCK_CNT0, KESTA_BLOCK_READ, slots.data(), sizeof(slots)) !=
        KESTA_OK) {
        return "";
    }
    std::string text;
    for (std::size_t i = 0; i < slots.size(); ++i) {
        if (slots[i].status != 0) {
            text += (text.empty() ? "CNT" : ", CNT") + std::to_string(i) + " (token " +
                    std::to_string(slots[i].timeout) + ")";
        }
    }
    return text;
}

}  // namespace engine
