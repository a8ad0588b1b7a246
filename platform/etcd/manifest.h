// What stands at the name of a file of the backup area: its contents, if they are small, or what its chunks are.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace etcd {

inline constexpr std::size_t largest_inline = 65536;

struct Manifest {
    std::uint64_t length = 0;
    std::optional<std::uint64_t> recorded;  // size, where it is another one than the length
    std::uint32_t chunk_bytes = 0;          // 0: the contents are in here
    std::uint64_t checksum = 0;             // of the contents in here, or of the checksums of the chunks
    std::string upload;                     // tells apart whatever was ever written to the name
    std::string contents;

    std::uint64_t size() const { return recorded.value_or(length); }
    std::uint64_t chunks() const { return chunk_bytes == 0 ? 0 : (length + chunk_bytes - 1) / chunk_bytes; }
};

std::string encode(const Manifest &manifest);

// False: it is none, or not whole.
bool decode(std::string_view text, Manifest &manifest);

// The keys of a file.
struct FileKeys {
    FileKeys(const std::string &prefix, const std::string &name);

    std::string chunks_of(const std::string &upload) const { return chunks + upload + "/"; }
    std::string chunk(const std::string &upload, std::uint64_t number) const;
    std::string intent(const std::string &upload) const { return intents + upload; }

    const std::string manifest;
    const std::string chunks;   // the prefix of all
    const std::string intents;  // likewise
};

// A chunk as it is stored: its checksum, then its bytes. The checksum covers which chunk it is as well.
std::string pack_chunk(std::uint64_t number, std::string_view bytes, std::uint64_t &checksum);

// False: it is damaged, or not so many bytes.
bool unpack_chunk(std::uint64_t number, std::string_view stored, std::uint64_t size, std::string_view &bytes,
                  std::uint64_t &checksum);

// The checksum of a file goes on by that of its next chunk.
std::uint64_t add_checksum(std::uint64_t file, std::uint64_t chunk);

}  // namespace etcd
