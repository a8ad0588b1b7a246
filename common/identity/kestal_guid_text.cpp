#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <array>

#include "kesta/identity.h"
#include "trace.h"
#include "vpd_state.h"

namespace {

using kesta::GuidText;

constexpr char separator = '-';
constexpr int hexadecimal = 16;

constexpr bool is_separator_place(int position)
{
    return position == 8 || position == 13 || position == 18 || position == 23;
}

constexpr bool has_separator_before(int byte) { return byte == 4 || byte == 6 || byte == 8 || byte == 10; }

int check_text(const char *text)
{
    const std::size_t length = strlen(text);
    if (length != KESTA_GUID_TEXT_LENGTH) {
        FAILURE(CONTENT, 0, 1, "[kestal_guid_str2bin] guid_str length error. guid_str_len=%d",
                static_cast<int>(length));
        return KESTA_ERR;
    }
    for (int i = 0; i < KESTA_GUID_TEXT_LENGTH; ++i) {
        if (is_separator_place(i)) {
            if (text[i] != separator) {
                FAILURE(CONTENT, 0, 1, "[kestal_guid_str2bin] guid_str format error. point=%d", i);
                return KESTA_ERR;
            }
        } else if (!isxdigit(static_cast<unsigned char>(text[i]))) {
            FAILURE(CONTENT, 0, 1, "[kestal_guid_str2bin] guid_str isxdigit() error. point=%d", i);
            return KESTA_ERR;
        }
    }
    return KESTA_OK;
}

void convert(const char *text, char *bytes)
{
    int byte = 0;
    for (int i = 0; i < KESTA_GUID_TEXT_LENGTH;) {
        if (is_separator_place(i)) {
            ++i;
            continue;
        }
        const std::array<char, 3> digits{text[i], text[i + 1], '\0'};
        bytes[byte++] = static_cast<char>(strtol(digits.data(), nullptr, hexadecimal));
        i += 2;
    }
}

}  // namespace

int kestal_guid_str2bin(const char *text, char *bytes)
{
    if (!text || !bytes) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_guid_str2bin] Argument Error.");
        return KESTA_ERR_ARGUMENT;
    }
    TRACE(5, "[kestal_guid_str2bin] START. guid_str=[%s]", text);
    const int ret = check_text(text);
    if (ret == KESTA_OK) {
        convert(text, bytes);
    }
    TRACE(3, "[kestal_guid_str2bin] END. guid_str=[%s] ret=[%d]", text, ret);
    return ret;
}

int kestal_guid_bin2str(const char *bytes, char *text)
{
    if (!bytes || !text) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_guid_bin2str] Argument Error.");
        return KESTA_ERR_ARGUMENT;
    }
    // It prints what the buffer holds before it is written, whatever that is: programs whose traces are compared line
    // by line fill the buffer beforehand.
    TRACE(5, "[kestal_guid_bin2str] START. guid_str=[%s]", GuidText(text).c_str());
    std::array<char, KESTA_GUID_TEXT_LENGTH + 1> formed{};
    char *to = formed.data();
    for (int i = 0; i < KESTA_GUID_BYTES; ++i) {
        if (has_separator_before(i)) {
            *to++ = separator;
        }
        snprintf(to, 3, "%02x", static_cast<unsigned char>(bytes[i]));
        to += 2;
    }
    memcpy(text, formed.data(), formed.size());
    TRACE(3, "[kestal_guid_bin2str] END. guid_str=[%s] ret=[%d]", text, KESTA_OK);
    return KESTA_OK;
}
