#include "contract.h"

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>

namespace fuzz {
namespace {

// Takes one character off; -1: no UTF-8, or not its shortest form.
long take_character(std::string_view &text)
{
    const auto byte = [&text](std::size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    const unsigned first = byte(0);
    const std::size_t length = first < 0x80   ? 1
                               : first < 0xc2 ? 0
                               : first < 0xe0 ? 2
                               : first < 0xf0 ? 3
                               : first < 0xf5 ? 4
                                              : 0;
    if (length == 0 || length > text.size()) {
        return -1;
    }
    long code = length == 1 ? static_cast<long>(first) : static_cast<long>(first & (0x7fU >> length));
    for (std::size_t i = 1; i < length; ++i) {
        if (byte(i) < 0x80 || byte(i) > 0xbf) {
            return -1;
        }
        code = code * 64 + static_cast<long>(byte(i) - 0x80);
    }
    text.remove_prefix(length);
    constexpr long least[] = {0, 0, 0x80, 0x800, 0x10000};
    return code < least[length] || code > 0x10ffff || (code >= 0xd800 && code < 0xe000) ? -1 : code;
}

}  // namespace

void (*before_end)() = nullptr;

void broken(const char *what)
{
    if (before_end) {
        before_end();
    }
    fprintf(stderr, "broken: %s\n", what);
    abort();
}

bool is_printable(std::string_view text)
{
    while (!text.empty()) {
        const long code = take_character(text);
        const bool plain = code == '\n' || code == '\t' || (code >= ' ' && code < 0x7f) ||
                           (code >= 0xa0 && code != 0x200e && code != 0x200f && (code < 0x2028 || code > 0x202e) &&
                            (code < 0x2066 || code > 0x2069));
        if (!plain) {
            return false;
        }
    }
    return true;
}

void require_printable(std::string_view text)
{
    if (!is_printable(text)) {
        fprintf(stderr, "%.*s\n", static_cast<int>(text.size()), text.data());
        broken("a text that a terminal would act on");
    }
}

void require_json(std::string_view text)
{
    require(std::all_of(text.begin(), text.end(), [](char c) { return c == '\n' || (c >= ' ' && c < 0x7f); }),
            "a JSON text that is not in ASCII");
}

}  // namespace fuzz
