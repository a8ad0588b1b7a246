// Any file in the place of a flash version file.
#include <kesta/kesta.h>

#include "input_file.h"

using fuzz::require;

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr int untouched = -777;
    int version = untouched;
    fuzz::use_input(data, size);
    const int result = kestal_read_flash_version_file(&version, KESTA_FLASH_VERSION);
    require(result == KESTA_OK || result == KESTA_ERR, "an unknown result");
    require(result == KESTA_OK || version == untouched, "a refused file was stored");
    return 0;
}
