/* A plain C program against the installed tree: one call of each kind that needs no appliance. */
#include <kesta/kesta.h>
#include <stdio.h>
#include <string.h>

int main(void)
{
    int block = 0;
    char *text = NULL;
    int capacity = 0;
    KESTA_VOLATILE image;

    memset(&image, 0, sizeof(image));
    if (sizeof(image) != 664 || kestal_get_block_id(KESTA_IDTYPE_VERSION, 2, &block) != KESTA_OK || block != 63 ||
        kestal_get_block_id(KESTA_IDTYPE_VERSION, 4, &block) != KESTA_ERR_ARGUMENT) {
        return 1;
    }
    kestal_strcat(&text, &capacity, "%s %d", "block", block);
    if (text == NULL || strcmp(text, "block 63") != 0 || kestal_isdigit("63") != 0) {
        return 1;
    }
    puts(text);
    kestal_free_debug(text, __FILE__, __LINE__, 0);
    return 0;
}
