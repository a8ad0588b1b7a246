// Any output of the platform's commands.
#include <kesta/kesta.h>
#include <string.h>

#include "input_file.h"

using fuzz::require;

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::use_input(data, size);
    const int limits[][3] = {{KESTA_CPINFO_OWN_NUMBER_NO_FILE, 0, 3},
                             {KESTA_CPINFO_CONTROLLER_COUNT, 1, 4},
                             {KESTA_CPINFO_BOOT_MODE, 0, 2}};
    for (const auto &[option, lowest, highest] : limits) {
        const int value = kestal_execute_command_by_popen(option);
        require(value == KESTA_ERR_CPINFO || (value >= lowest && value <= highest), "a number out of range");
    }
    char lines[3][64] = {};
    char *output[] = {lines[0], lines[1], lines[2], nullptr};
    (void)kestal_execute("command", output);
    for (const auto &line : lines) {
        require(strnlen(line, sizeof(line)) < sizeof(line), "a line without its end");
    }
    return 0;
}
