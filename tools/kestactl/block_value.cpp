#include "block_value.h"

#include <string.h>

#include <algorithm>
#include <cstdint>

#include "appliance_state.h"

namespace kestactl {
namespace {

std::int32_t int_at(const std::vector<char> &bytes, std::size_t offset)
{
    std::int32_t value;
    memcpy(&value, bytes.data() + offset, sizeof(value));
    return value;
}

std::int64_t long_at(const std::vector<char> &bytes, std::size_t offset)
{
    std::int64_t value;
    memcpy(&value, bytes.data() + offset, sizeof(value));
    return value;
}

}  // namespace

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

std::string printable(const std::string &text)
{
    std::string shown;
    for (const char c : text) {
        const bool plain = c >= ' ' && c < '\x7f';
        shown += plain ? std::string(1, c) : "\\x" + hex({c});
    }
    return shown;
}

bool all_zero(const std::vector<char> &bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](char byte) { return byte == 0; });
}

Json decoded(const Block &block, const std::vector<char> &bytes)
{
    switch (block.kind) {
    case BlockKind::number:
    case BlockKind::version:
        return int_at(bytes, 0);
    case BlockKind::slot:
    case BlockKind::group:
    case BlockKind::text:
        return printable(field_text(bytes));
    case BlockKind::bytes:
        return hex(bytes);
    case BlockKind::lock:
        return {{"status", int_at(bytes, 0)},
                {"sign", long_at(bytes, 8)},
                {"timeout", long_at(bytes, 16)}};
    case BlockKind::inner_lock:
        return {{"status", int_at(bytes, 0)}, {"token", long_at(bytes, 8)}};
    }
    return nullptr;
}

std::string shown(const Json &value)
{
    return value.is_string() ? value.get<std::string>() : value.dump();
}

}  // namespace kestactl
