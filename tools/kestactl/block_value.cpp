#include "block_value.h"

#include <string.h>

#include <cstdint>

#include "appliance_state.h"
#include "printable.h"

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

Json decoded(const Block &block, const std::vector<char> &bytes)
{
    switch (block.kind) {
    case BlockKind::number:
    case BlockKind::version:
        return int_at(bytes, 0);
    case BlockKind::slot:
    case BlockKind::group:
    case BlockKind::text:
        return plain_text(field_text(bytes));
    case BlockKind::bytes:
        return hex(bytes);
    case BlockKind::lock:
        return {{"status", int_at(bytes, 0)}, {"sign", long_at(bytes, 8)}, {"timeout", long_at(bytes, 16)}};
    case BlockKind::inner_lock:
        return {{"status", int_at(bytes, 0)}, {"token", long_at(bytes, 8)}};
    }
    return nullptr;
}

std::string shown(const Json &value) { return value.is_string() ? value.get<std::string>() : value.dump(); }

}  // namespace kestactl
