#include "printable.h"

#include <array>
#include <cstdint>
#include <cstdio>

namespace engine {
namespace {

struct Character {
    std::uint32_t code;
    std::size_t length;  // in bytes; 0: no UTF-8
};

constexpr Character no_character{0, 0};

// How many bytes a first byte begins, and the least code that may take so many: a longer form of a smaller
// code is a disguise.
struct Form {
    unsigned char mask;
    unsigned char lead;
    std::size_t length;
    std::uint32_t least;
};
constexpr std::array<Form, 4> forms{{
    {0x80, 0x00, 1, 0},
    {0xe0, 0xc0, 2, 0x80},
    {0xf0, 0xe0, 3, 0x800},
    {0xf8, 0xf0, 4, 0x10000},
}};

Character decode(std::string_view text)
{
    const auto byte = [text](std::size_t i) {
        return static_cast<unsigned char>(text[i]);
    };
    for (const Form &form : forms) {
        if ((byte(0) & form.mask) != form.lead) {
            continue;
        }
        if (text.size() < form.length) {
            return no_character;
        }
        std::uint32_t code = byte(0) & static_cast<unsigned char>(~form.mask);
        for (std::size_t i = 1; i < form.length; ++i) {
            if ((byte(i) & 0xc0) != 0x80) {
                return no_character;
            }
            code = (code << 6) | (byte(i) & 0x3fU);
        }
        const bool surrogate = code >= 0xd800 && code <= 0xdfff;
        return code < form.least || code > 0x10ffff || surrogate ? no_character : Character{code, form.length};
    }
    return no_character;
}

bool acts_on_a_terminal(std::uint32_t code)
{
    const auto between = [code](std::uint32_t first, std::uint32_t last) {
        return code >= first && code <= last;
    };
    return (code < 0x20 && code != '\n' && code != '\t') || between(0x7f, 0x9f) || between(0x200e, 0x200f) ||
           between(0x2028, 0x202e) || between(0x2066, 0x2069);
}

std::string escape(const char *format, std::uint32_t value)
{
    std::array<char, 16> text{};
    snprintf(text.data(), text.size(), format, static_cast<unsigned>(value));
    return text.data();
}

}  // namespace

std::string printable(std::string_view text)
{
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const Character character = decode(text);
        const std::size_t length = character.length == 0 ? 1 : character.length;
        if (character.length == 0) {
            result += escape("\\x%02x", static_cast<unsigned char>(text[0]));
        } else if (acts_on_a_terminal(character.code)) {
            result += escape(character.code < 0x80 ? "\\x%02x" : "\\u%04x", character.code);
        } else {
            result += text.substr(0, length);
        }
        text.remove_prefix(length);
    }
    return result;
}

std::string hex(const std::vector<char> &bytes)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes) {
        text += digits[static_cast<unsigned char>(byte) >> 4];
        text += digits[static_cast<unsigned char>(byte) & 0xf];
    }
    return text;
}

std::string plain_text(std::string_view text)
{
    std::string shown;
    for (const char c : text) {
        const bool plain = c >= ' ' && c < '\x7f';
        shown += plain ? std::string(1, c) : "\\x" + hex({c});
    }
    return shown;
}

}  // namespace engine
