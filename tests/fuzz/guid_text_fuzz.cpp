// Any text in the place of a GUID, and any file in the place of the one that holds it.
#include <ctype.h>
#include <kesta/kesta.h>
#include <string.h>

#include <string>

#include "input_file.h"

using fuzz::require;

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    char bytes[KESTA_GUID_BYTES];
    if (kestal_guid_str2bin(text.c_str(), bytes) == KESTA_OK) {
        char again[KESTA_GUID_TEXT_LENGTH + 1] = "";
        require(kestal_guid_bin2str(bytes, again) == KESTA_OK, "it can't be turned back");
        require(strcasecmp(again, text.c_str()) == 0, "another GUID came back");
    }
    fuzz::use_input(data, size);
    char from_file[KESTA_GUID_TEXT_LENGTH + 1] = "";
    char wwn[KESTA_WWN_LENGTH + 1] = "";
    (void)kestal_read_flash_guid(from_file);
    (void)kestal_read_flash_wwn(wwn);
    require(strnlen(from_file, sizeof(from_file)) < sizeof(from_file), "a GUID without its end");
    require(strnlen(wwn, sizeof(wwn)) < sizeof(wwn), "a WWN without its end");
    return 0;
}
