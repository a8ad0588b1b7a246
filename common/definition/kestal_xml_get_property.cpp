#include <libxml/tree.h>
#include <stdlib.h>
#include <string.h>

#include <cstdint>
#include <memory>

#include "definition_reader.h"
#include "kesta/backup_definition.h"
#include "kesta/process.h"
#include "ownership.h"
#include "trace.h"

namespace {

constexpr char wildcard = '*';
constexpr int integer_size = sizeof(std::int32_t);

// The value of an attribute.
class Property {
public:
    Property(xmlNodePtr node, const char *name) : value_(xmlGetProp(node, reinterpret_cast<const xmlChar *>(name))) {}
    ~Property()
    {
        if (value_) {
            xmlFree(value_);
        }
    }
    Property(const Property &) = delete;
    Property &operator=(const Property &) = delete;

    explicit operator bool() const { return value_ != nullptr; }
    const char *text() const { return reinterpret_cast<const char *>(value_); }

private:
    xmlChar *value_;
};

// The usual decimal conversion, without an overflow check.
std::int32_t to_integer(const char *digits) { return static_cast<std::int32_t>(strtol(digits, nullptr, 10)); }

int copy_as_integer(const Property &value, char *destination, int buflen)
{
    if (buflen < integer_size) {
        FAILURE(CONTENT, 0, 1, "[xml_get_property] Len Error(buflen=%d).", buflen);
        return KESTA_ERR;
    }
    if (kestal_isdigit(value.text()) != KESTA_OK) {
        // It prints what the destination holds, not the value: who reads the log knows the field by its default. The
        // bytes of a number have no terminator.
        const int length = static_cast<int>(strnlen(destination, static_cast<std::size_t>(buflen)));
        FAILURE(CONTENT, 0, 1, "[xml_get_property] isdigit check ERROR destbuf=%.*s", length, destination);
        return KESTA_ERR;
    }
    const std::int32_t number = to_integer(value.text());
    memcpy(destination, &number, sizeof(number));
    TRACE(5, "Get (INT).(len=%d)", integer_size);
    return KESTA_OK;
}

int copy_as_text(const Property &value, char *destination, int buflen)
{
    const std::size_t length = strlen(value.text()) + 1;
    if (length > static_cast<std::size_t>(buflen)) {
        FAILURE(CONTENT, 0, 1, "[xml_get_property] Len Error(nodelen=%d buflen=%d).", static_cast<int>(length), buflen);
        return KESTA_ERR;
    }
    memcpy(destination, value.text(), length);
    TRACE(5, "[xml_get_property] Get %s.(len=%d)", destination, static_cast<int>(length));
    return KESTA_OK;
}

}  // namespace

int kestal_xml_get_property(xmlNodePtr *node, const char *name, char *destination, int buflen, int copytype)
{
    if (!node || !*node || !name || !destination) {
        FAILURE(ARGUMENT, 0, 1, "[xml_get_property] Null Argument.");
        return KESTA_ERR_ARGUMENT;
    }
    if (buflen <= 0 || (copytype != kesta::copy_text && copytype != kesta::copy_integer)) {
        FAILURE(ARGUMENT, 0, 1, "[xml_get_property] Argument Error(buflen=%d, copytype=%d).", buflen, copytype);
        return KESTA_ERR_ARGUMENT;
    }
    const kesta::CancelOff off;
    const Property value(*node, name);
    if (!value) {
        return KESTA_ERR_DEFINITION;
    }
    return copytype == kesta::copy_integer ? copy_as_integer(value, destination, buflen)
                                           : copy_as_text(value, destination, buflen);
}

int kestal_check_wildcard(int *check_result, const char *check_string)
{
    const char *function = __func__;
    if (!check_result) {
        FAILURE(ARGUMENT, 0, 1, "[%s] Argument Error(check_result).", function);
        return KESTA_ERR_ARGUMENT;
    }
    if (!check_string) {
        FAILURE(ARGUMENT, 0, 1, "[%s] Argument Error(check_string).", function);
        return KESTA_ERR_ARGUMENT;
    }
    *check_result = strchr(check_string, wildcard) ? KESTA_ON : KESTA_OFF;
    return KESTA_OK;
}
