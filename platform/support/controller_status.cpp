#include "controller_status.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "faults.h"
#include "opened_file.h"
#include "scoped.h"
#include "settings.h"

namespace platform {
namespace {

// Whether the line is "NAME = NUMBER", and the number fits a byte.
bool parse_status(const char *line, char (&name)[16], uint8_t &value)
{
    char text[16];
    if (sscanf(line, " %15[a-z0-9] = %15s", name, text) != 2) {
        return false;
    }
    char *end = nullptr;
    const unsigned long number = strtoul(text, &end, 0);
    value = static_cast<uint8_t>(number);
    return *end == '\0' && number <= UINT8_MAX;
}

void store_status(StatusBytes &bytes, const char *name, uint8_t value)
{
    for (unsigned i = 0; i < controllers; ++i) {
        char cont[16];
        char card[16];
        snprintf(cont, sizeof(cont), "cont%u", i);
        snprintf(card, sizeof(card), "card%u", i);
        if (strcmp(name, cont) == 0) {
            bytes.cont[i] = value;
        } else if (strcmp(name, card) == 0) {
            bytes.card[i] = value;
        }
    }
}

}  // namespace

int read_status(StatusBytes &bytes)
{
    if (const int failed = failure_of("status"); failed != 0) {
        return failed;
    }
    const kesta::CancelOff off;
    FILE *file = kesta::above_standard(kesta::open_stream(settings().status_file));
    if (!file) {
        return -errno;
    }
    char line[128];
    while (fgets(line, sizeof(line), file)) {
        char name[16];
        uint8_t value;
        if (parse_status(line, name, value)) {
            store_status(bytes, name, value);
        }
    }
    const int result = ferror(file) ? -EIO : 0;
    (void)fclose(file);  // read only
    return result;
}

int get_status(int kind, sanfw_getstatus_out *out)
{
    if (kind != 0 || !out) {
        return -EINVAL;
    }
    StatusBytes bytes{};
    const int result = read_status(bytes);
    if (result == 0) {
        *out = {};
        out->cont0_sts = bytes.cont[0];
        out->cont1_sts = bytes.cont[1];
        out->card0_sts = bytes.card[0];
        out->card1_sts = bytes.card[1];
    }
    return result;
}

int get_status_ex(int kind, sanfw_getstatus_ex_out *out)
{
    if (kind != 1 || !out) {
        return -EINVAL;
    }
    StatusBytes bytes{};
    const int result = read_status(bytes);
    if (result == 0) {
        *out = {};
        memcpy(out->cont_sts, bytes.cont, sizeof(bytes.cont));
        memcpy(out->card_sts, bytes.card, sizeof(bytes.card));
    }
    return result;
}

}  // namespace platform
