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
    constexpr std::size_t huge_page = std::size_t{2} << 20;
    const std::size_t before_first = -reinterpret_cast<std::uintptr_t>(buffer) % huge_page;
    if (!buffer || size < before_first + huge_page) {
        return;
    }
    const int before = errno;
    // Advice only: without huge pages the buffer works as well.
    (void)madvise(static_cast<char *>(buffer) + before_first, (size - before_first) / huge_page * huge_page,
                  MADV_HUGEPAGE);
    errno = before;
}

}  // namespace kesta
