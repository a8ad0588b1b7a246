// A point in time that a wait does not pass, by a clock that nobody sets.
#pragma once

#include <time.h>

#include <algorithm>
#include <cstdint>

namespace etcd {

inline std::int64_t now_ms()
{
    struct timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

class Deadline {
public:
    static Deadline in(std::int64_t ms) { return Deadline(now_ms() + ms); }

    // The earlier one of this and of that many milliseconds from now.
    Deadline at_most(std::int64_t ms) const { return Deadline(std::min(at_ms_, now_ms() + ms)); }

    int left_ms() const
    {
        const std::int64_t left = at_ms_ - now_ms();
        return static_cast<int>(std::clamp<std::int64_t>(left, 0, 1 << 30));
    }
    bool passed() const { return left_ms() == 0; }

private:
    explicit Deadline(std::int64_t at_ms) : at_ms_(at_ms) {}

    std::int64_t at_ms_;
};

}  // namespace etcd
