#include "vrbapi.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "atomic_file.h"
#include "faults.h"
#include "opened_file.h"
#include "scoped.h"
#include "settings.h"

#define PLATFORM_API __attribute__((visibility("default")))

namespace {

using namespace platform;

constexpr int failure = -1;
constexpr uint8_t controllers = 4;

int fail(_VRBAPIERRINFO *error, const char *function, int number)
{
    if (error) {
        memset(error, 0, sizeof(*error));
        snprintf(error->func_name, sizeof(error->func_name), "%s", function);
        error->s_errno = number;
    }
    errno = number;
    return failure;
}

// One integer, with nothing around it but blanks and the newline.
bool parse_integer(const char *text, long &value)
{
    char *end = nullptr;
    errno = 0;
    value = strtol(text, &end, 10);
    if (end == text || errno != 0) {
        return false;
    }
    return end[strspn(end, " \t\r\n")] == '\0';
}

int read_text(const char *path, char *text, size_t size)
{
    const kesta::UniqueFd fd(kesta::open_at_once(path, O_RDONLY));
    if (!fd) {
        return -errno;
    }
    const ssize_t bytes = read(fd.get(), text, size - 1);
    if (bytes < 0) {
        return -errno;
    }
    text[bytes] = '\0';
    return 0;
}

bool parse_address(const char *text, struct in_addr &address) { return inet_pton(AF_INET, text, &address) == 1; }

}  // namespace

PLATFORM_API int vrbapi_setint_to_file(const char *path, int value, _VRBAPIERRINFO *error)
{
    if (!path) {
        return fail(error, "setint", EINVAL);
    }
    if (const int failed = failure_of("vrb_set"); failed != 0) {
        return fail(error, "write", -failed);
    }
    char text[16];
    const int length = snprintf(text, sizeof(text), "%d\n", value);
    const int result = replace_file(path, text, static_cast<unsigned>(length));
    return result == 0 ? 0 : fail(error, "write", -result);
}

PLATFORM_API int vrbapi_getint_from_file(const char *path, unsigned char, int lowest, int highest, int *value,
                                         _VRBAPIERRINFO *error)
{
    if (!path || !value) {
        return fail(error, "getint", EINVAL);
    }
    if (const int failed = failure_of("vrb_get"); failed != 0) {
        return fail(error, "read", -failed);
    }
    const kesta::CancelOff off;
    char text[64];
    if (const int result = read_text(path, text, sizeof(text)); result != 0) {
        return fail(error, "read", -result);
    }
    long number;
    if (!parse_integer(text, number)) {
        return fail(error, "parse", EINVAL);
    }
    if (number < lowest || number > highest) {
        return fail(error, "range", ERANGE);
    }
    *value = static_cast<int>(number);
    return 0;
}

PLATFORM_API int vrbgetsanfwinfo(int kind, uint8_t *result, _VRBAPIERRINFO *error, int *extra)
{
    if (kind != VRB_SANFWINFO_MASTER || !result) {
        return fail(error, "getsanfwinfo", EINVAL);
    }
    if (const int failed = failure_of("vrb_info"); failed != 0) {
        return fail(error, "getsanfwinfo", -failed);
    }
    const int master = settings().master;
    if (settings_problem()[0] != '\0' || master >= controllers) {
        return fail(error, "settings", EINVAL);
    }
    *result = static_cast<uint8_t>(master);
    if (extra) {
        *extra = 0;
    }
    return 0;
}

PLATFORM_API int vrbgetnetconfig(vrb_netconfig_t records[2])
{
    if (!records) {
        return fail(nullptr, "", EINVAL);
    }
    if (const int failed = failure_of("vrb_net"); failed != 0) {
        return fail(nullptr, "", -failed);
    }
    const Settings &known = settings();
    vrb_netconfig_t found[2] = {{known.controller_number, {}}, {known.other_number, {}}};
    if (!parse_address(known.address_own, found[0].address) || !parse_address(known.address_other, found[1].address)) {
        return fail(nullptr, "", EINVAL);
    }
    memcpy(records, found, sizeof(found));
    return 0;
}
