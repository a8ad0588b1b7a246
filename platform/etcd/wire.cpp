#include "wire.h"

namespace etcd {
namespace {

constexpr unsigned shape_bits = 3;
constexpr unsigned shape_varint = 0;
constexpr unsigned shape_64 = 1;
constexpr unsigned shape_bytes = 2;
constexpr unsigned shape_32 = 5;
constexpr unsigned shape_mask = 7;
constexpr std::uint64_t highest_field = (1U << 29U) - 1;
constexpr unsigned longest_varint_bits = 70;

}  // namespace

void WireWriter::varint(std::uint64_t value)
{
    for (; value >= 0x80; value >>= 7U) {
        text_.push_back(static_cast<char>(value | 0x80));
    }
    text_.push_back(static_cast<char>(value));
}

void WireWriter::number(unsigned field, std::uint64_t value)
{
    if (value != 0) {
        chosen_number(field, value);
    }
}

void WireWriter::bytes(unsigned field, std::string_view value)
{
    if (!value.empty()) {
        chosen_bytes(field, value);
    }
}

void WireWriter::chosen_number(unsigned field, std::uint64_t value)
{
    varint(std::uint64_t{field} << shape_bits | shape_varint);
    varint(value);
}

void WireWriter::chosen_bytes(unsigned field, std::string_view value)
{
    varint(std::uint64_t{field} << shape_bits | shape_bytes);
    varint(value.size());
    text_.append(value);
}

bool WireReader::varint(std::uint64_t &value)
{
    value = 0;
    for (unsigned shift = 0; shift < longest_varint_bits; shift += 7) {
        if (left_.empty()) {
            return fail();
        }
        const auto byte = static_cast<unsigned char>(left_.front());
        left_.remove_prefix(1);
        value |= shift < 64 ? std::uint64_t{byte & 0x7fU} << shift : 0;
        if ((byte & 0x80U) == 0) {
            return true;
        }
    }
    return fail();
}

bool WireReader::take(std::uint64_t size, std::string_view &bytes)
{
    if (size > left_.size()) {
        return fail();
    }
    bytes = left_.substr(0, static_cast<std::size_t>(size));
    left_.remove_prefix(static_cast<std::size_t>(size));
    return true;
}

bool WireReader::next(Field &field)
{
    field = {};
    std::uint64_t key = 0;
    if (failed_ || left_.empty() || !varint(key)) {
        return false;
    }
    const std::uint64_t number = key >> shape_bits;
    if (number == 0 || number > highest_field) {
        return fail();
    }
    field.number = static_cast<unsigned>(number);
    std::uint64_t size = 0;
    std::string_view passed_by;
    switch (key & shape_mask) {
    case shape_varint:
        return varint(field.value);
    case shape_bytes:
        return varint(size) && take(size, field.bytes);
    case shape_64:
        return take(8, passed_by);
    case shape_32:
        return take(4, passed_by);
    default:
        return fail();
    }
}

}  // namespace etcd
