#include "manifest.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstring>

#include "checksum.h"
#include "wire.h"

namespace etcd {
namespace {

constexpr std::uint64_t layout = 1;
constexpr std::uint64_t smallest_chunk = 4096;
constexpr std::uint64_t largest_chunk = 1 << 20;
constexpr std::size_t upload_size = 16;

// The numbers of the fields, which are stored.
enum Field { of_layout = 1, of_length, of_recorded, of_chunk_bytes, of_checksum, of_upload, of_contents };

bool is_upload(const std::string &text)
{
    return text.size() == upload_size && std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
           });
}

bool is_whole(const Manifest &manifest)
{
    if (!is_upload(manifest.upload) || manifest.length > INT_MAX || manifest.size() > INT_MAX) {
        return false;
    }
    if (manifest.chunk_bytes == 0) {
        return manifest.contents.size() == manifest.length && checksum(manifest.contents) == manifest.checksum;
    }
    return manifest.contents.empty() && manifest.chunk_bytes >= smallest_chunk &&
           manifest.chunk_bytes <= largest_chunk && manifest.length > 0;
}

}  // namespace

std::string encode(const Manifest &manifest)
{
    WireWriter to;
    to.number(of_layout, layout);
    to.number(of_length, manifest.length);
    if (manifest.recorded) {
        to.chosen_number(of_recorded, *manifest.recorded);
    }
    to.number(of_chunk_bytes, manifest.chunk_bytes);
    to.number(of_checksum, manifest.checksum);
    to.bytes(of_upload, manifest.upload);
    to.bytes(of_contents, manifest.contents);
    return to.text();
}

bool decode(std::string_view text, Manifest &manifest)
{
    manifest = {};
    std::uint64_t found_layout = 0;
    WireReader from(text);
    for (WireReader::Field field; from.next(field);) {
        switch (field.number) {
        case of_layout:
            found_layout = field.value;
            break;
        case of_length:
            manifest.length = field.value;
            break;
        case of_recorded:
            manifest.recorded = field.value;
            break;
        case of_chunk_bytes:
            manifest.chunk_bytes = static_cast<std::uint32_t>(std::min<std::uint64_t>(field.value, UINT32_MAX));
            break;
        case of_checksum:
            manifest.checksum = field.value;
            break;
        case of_upload:
            manifest.upload = field.bytes;
            break;
        case of_contents:
            manifest.contents = field.bytes;
            break;
        default:
            break;
        }
    }
    return !from.failed() && found_layout == layout && is_whole(manifest);
}

FileKeys::FileKeys(const std::string &prefix, const std::string &name)
    : manifest(prefix + "sb/f/" + name), chunks(prefix + "sb/c/" + name + "/"), intents(prefix + "sb/i/" + name + "/")
{
}

std::string FileKeys::chunk(const std::string &upload, std::uint64_t number) const
{
    std::array<char, 24> text{};
    (void)snprintf(text.data(), text.size(), "%08llu", static_cast<unsigned long long>(number));
    return chunks_of(upload) + text.data();
}

std::string pack_chunk(std::uint64_t number, std::string_view bytes, std::uint64_t &sum)
{
    sum = checksum(bytes, add_checksum(0, number));
    std::string stored(sizeof(sum), '\0');
    std::memcpy(stored.data(), &sum, sizeof(sum));
    return stored.append(bytes);
}

bool unpack_chunk(std::uint64_t number, std::string_view stored, std::uint64_t size, std::string_view &bytes,
                  std::uint64_t &sum)
{
    if (stored.size() != size + sizeof(sum)) {
        return false;
    }
    std::memcpy(&sum, stored.data(), sizeof(sum));
    bytes = stored.substr(sizeof(sum));
    return checksum(bytes, add_checksum(0, number)) == sum;
}

std::uint64_t add_checksum(std::uint64_t file, std::uint64_t chunk)
{
    std::array<char, sizeof(chunk)> bytes{};
    std::memcpy(bytes.data(), &chunk, sizeof(chunk));
    return checksum({bytes.data(), bytes.size()}, file);
}

}  // namespace etcd
