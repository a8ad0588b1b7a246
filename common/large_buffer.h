// Asks for huge pages under a large buffer that has not been touched yet: filling 100 MB through
// single pages costs more in page faults than in copying.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace kesta {

inline void prefer_huge_pages(void *buffer, std::size_t size)
{
    constexpr std::uintptr_t huge_page = 2U << 20;
    const std::uintptr_t begin =
        (reinterpret_cast<std::uintptr_t>(buffer) + huge_page - 1) & ~(huge_page - 1);
    const std::uintptr_t end =
        (reinterpret_cast<std::uintptr_t>(buffer) + size) & ~(huge_page - 1);
    if (buffer && end > begin) {
        const int before = errno;
        // Advice only: without huge pages the buffer works as well.
        (void)madvise(reinterpret_cast<void *>(begin), end - begin, MADV_HUGEPAGE);
        errno = before;
    }
}

}  // namespace kesta
