#include "checksum.h"

#include <array>
#include <cstring>

namespace etcd {
namespace {

constexpr std::uint64_t polynomial = 0xC96C5795D7870F42U;
constexpr std::size_t lanes = 8;  // bytes that are taken at once
constexpr std::size_t values = 256;

using Tables = std::array<std::array<std::uint64_t, values>, lanes>;

constexpr Tables make_tables()
{
    Tables tables{};
    for (std::size_t byte = 0; byte < values; ++byte) {
        std::uint64_t crc = byte;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 1U) != 0 ? crc >> 1U ^ polynomial : crc >> 1U;
        }
        tables[0][byte] = crc;
    }
    for (std::size_t byte = 0; byte < values; ++byte) {
        for (std::size_t lane = 1; lane < lanes; ++lane) {
            const std::uint64_t before = tables[lane - 1][byte];
            tables[lane][byte] = before >> 8U ^ tables[0][before & 0xffU];
        }
    }
    return tables;
}

constexpr Tables tables = make_tables();

}  // namespace

std::uint64_t checksum(std::string_view bytes, std::uint64_t before)
{
    std::uint64_t crc = ~before;
    while (bytes.size() >= lanes) {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes.data(), lanes);  // little-endian, as all that this system runs on
        word ^= crc;
        crc = 0;
        for (std::size_t lane = 0; lane < lanes; ++lane) {
            crc ^= tables[lanes - 1 - lane][word >> 8 * lane & 0xffU];
        }
        bytes.remove_prefix(lanes);
    }
    for (const char byte : bytes) {
        crc = crc >> 8U ^ tables[0][(crc ^ static_cast<unsigned char>(byte)) & 0xffU];
    }
    return ~crc;
}

}  // namespace etcd
