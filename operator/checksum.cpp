#include "checksum.h"

#include <stdio.h>

#include <array>

#include "archive_functions.h"

namespace engine {

bool is_checksum(std::string_view text)
{
    return text.size() == checksum_length && text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

struct Checksum::State {
    struct sha256_ctx context;
};

Checksum::Checksum() : state_(std::make_unique<State>()) { sha256_init(&state_->context); }

Checksum::~Checksum() = default;

void Checksum::add(std::string_view piece)
{
    sha256_update(&state_->context, piece.size(), reinterpret_cast<const std::uint8_t *>(piece.data()));
}

std::string Checksum::text()
{
    std::array<std::uint8_t, SHA256_DIGEST_SIZE> digest{};
    sha256_digest(&state_->context, digest.size(), digest.data());
    std::string hex;
    for (const std::uint8_t byte : digest) {
        char pair[3];
        snprintf(pair, sizeof(pair), "%02x", byte);
        hex += pair;
    }
    return hex;
}

}  // namespace engine
