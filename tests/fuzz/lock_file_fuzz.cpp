// Any file in the place of a lock-identifier file.
#include <kesta/kesta.h>
#include <string.h>

#include "input_file.h"

using fuzz::require;

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    char identifier[KESTA_LOCK_FILE_BUFFER + 1] = "";
    const char *path = fuzz::use_input(data, size);
    require(kestal_read_lock_file(path, identifier, KESTA_LOCK_FILE_BUFFER) == KESTA_OK, "a file that is there");
    require(strlen(identifier) < KESTA_LOCK_FILE_BUFFER, "more than ten characters");
    return 0;
}
