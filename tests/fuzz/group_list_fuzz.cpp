// Any file in the place of a group list.
#include <kesta/kesta.h>
#include <string.h>

#include "input_file.h"

using fuzz::require;

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static char names[KESTA_GROUP_LIST_ENTRIES][KESTA_GROUP_NAME_SIZE];
    static int codes[KESTA_GROUP_LIST_ENTRIES];
    const char *path = fuzz::use_input(data, size);
    const int count = kestal_get_groupname_from_file(names[0], codes, path);
    require(count >= KESTA_ERR && count <= KESTA_GROUP_LIST_ENTRIES, "a count out of range");
    for (int i = 0; i < count; ++i) {
        require(strnlen(names[i], KESTA_GROUP_NAME_SIZE) < KESTA_GROUP_NAME_SIZE, "a full name");
        require(codes[i] >= 0 && codes[i] <= 64, "a code out of range");
    }
    return 0;
}
