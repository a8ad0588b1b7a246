// While this lives the process gets no more memory from the system; what it has stays usable. Not for sanitizers,
// which need more themselves: they end the process.
#pragma once

#include <sys/resource.h>

namespace test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool memory_can_be_limited = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool memory_can_be_limited = false;
#else
inline constexpr bool memory_can_be_limited = true;
#endif
#else
inline constexpr bool memory_can_be_limited = true;
#endif

class NoMoreMemory {
public:
    NoMoreMemory()
    {
        getrlimit(RLIMIT_AS, &before_);
        const struct rlimit none {
            1, before_.rlim_max
        };
        setrlimit(RLIMIT_AS, &none);
    }
    ~NoMoreMemory() { setrlimit(RLIMIT_AS, &before_); }
    NoMoreMemory(const NoMoreMemory &) = delete;
    NoMoreMemory &operator=(const NoMoreMemory &) = delete;

private:
    struct rlimit before_ {};
};

}  // namespace test
