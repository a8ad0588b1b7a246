// The checksum that archives are known by.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace engine {

// Whether a text is such a checksum, as it is written down: 64 hexadecimal digits.
bool is_checksum(std::string_view text);
inline constexpr std::size_t checksum_length = 64;

// SHA-256 of what is added, piece by piece.
class Checksum {
public:
    Checksum();
    ~Checksum();
    Checksum(const Checksum &) = delete;
    Checksum &operator=(const Checksum &) = delete;

    void add(std::string_view piece);
    // In hexadecimal; once, when all is added.
    std::string text();

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace engine
