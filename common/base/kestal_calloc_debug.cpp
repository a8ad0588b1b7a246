#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <cstdint>

#include "kesta/alloc.h"
#include "ownership.h"
#include "trace.h"
#include "tracked_allocation.h"

namespace kesta {
volatile int tsize = 0;
void reset_tracked_allocation() { tsize = 0; }
}  // namespace kesta

namespace {

constexpr std::size_t file_name_size = 16;
constexpr std::size_t file_name_skip = 3;  // characters of the stripped path that are left out

// Who made a block, and how large it is.
struct BlockOwner {
    std::uint32_t thread_no;
    std::int32_t total;  // the running total just after this block was counted
    std::int32_t size;   // user bytes
    char file[file_name_size];
    std::int32_t line;
};
static_assert(sizeof(BlockOwner) == 32);

// Resizing wraps like the size product: in 32 bits, unsigned.
std::size_t with_header(std::uint32_t user_size) { return user_size + sizeof(BlockOwner); }

std::uint32_t current_thread_no() { return static_cast<std::uint32_t>(pthread_self()); }

void set_file_name(char (&name)[file_name_size], const char *path)
{
    memset(name, 0, sizeof(name));
    const char *stripped = path ? MC_FilePathDel(path) : nullptr;
    if (!stripped) {
        return;
    }
    const char *from = stripped + strnlen(stripped, file_name_skip);
    memcpy(name, from, strnlen(from, sizeof(name) - 1));
}

std::int32_t add_to_total(std::uint32_t change)
{
    kesta::MutexGuard guard(memory_mutex);
    tsize = static_cast<std::int32_t>(static_cast<std::uint32_t>(tsize) + change);
    return tsize;
}

BlockOwner read_owner(const void *block)
{
    BlockOwner owner;
    memcpy(&owner, block, sizeof(owner));
    return owner;
}

// Counts the block, fills its header and returns it.
BlockOwner stamp(void *block, std::uint32_t size, std::uint32_t change, const char *file, int line)
{
    BlockOwner owner{};
    owner.total = add_to_total(change);
    owner.thread_no = current_thread_no();
    owner.size = static_cast<std::int32_t>(size);
    set_file_name(owner.file, file);
    owner.line = line;
    memcpy(block, &owner, sizeof(owner));
    return owner;
}

char *user_area(void *block) { return static_cast<char *>(block) + sizeof(BlockOwner); }
char *header_of(void *user) { return static_cast<char *>(user) - sizeof(BlockOwner); }

}  // namespace

void *kestal_calloc_debug(int count, int size, const char *file, int line, int debug)
{
    if (debug == 0) {
        return calloc(static_cast<std::size_t>(count), static_cast<std::size_t>(size));
    }
    const std::uint32_t bytes = static_cast<std::uint32_t>(size) * static_cast<std::uint32_t>(count);
    void *block = calloc(1, with_header(bytes));
    if (!block) {
        return nullptr;
    }
    const BlockOwner owner = stamp(block, bytes, bytes, file, line);
    TRACE(4, "***** CALLOC(ALLOC_SIZE =%d TOTAL_SIZE =%d THREADNO =%u FILE =%s LINE =%d)", owner.size, owner.total,
          owner.thread_no, owner.file, owner.line);
    return user_area(block);
}

void *kestal_malloc_debug(int size, const char *file, int line, int debug)
{
    return kestal_calloc_debug(1, size, file, line, debug);
}

void *kestal_realloc_debug(char *ptr, int size, const char *file, int line, int debug)
{
    if (debug == 0) {
        return realloc(ptr, static_cast<std::size_t>(size));
    }
    if (!ptr) {
        return nullptr;
    }
    const BlockOwner before = read_owner(header_of(ptr));
    const std::uint32_t bytes = static_cast<std::uint32_t>(size);
    void *block = realloc(header_of(ptr), with_header(bytes));
    if (!block) {
        return nullptr;
    }
    const BlockOwner owner = stamp(block, bytes, bytes - static_cast<std::uint32_t>(before.size), file, line);
    // Two blanks before TOTAL_SIZE in this line only: log readers match it.
    TRACE(4,
          "***** REALLOC(ALLOC_SIZE =%d  TOTAL_SIZE =%d THREADNO =%u FILE =%s LINE =%d"
          "(PRESIZE = %d THREADNO =%u FILE =%s LINE =%d))",
          owner.size, owner.total, owner.thread_no, owner.file, owner.line, before.size, before.thread_no, before.file,
          before.line);
    return user_area(block);
}

void kestal_free_debug(void *ptr, const char *file, int line, int debug)
{
    if (debug == 0) {
        free(ptr);
        return;
    }
    if (!ptr) {
        return;
    }
    char *block = header_of(ptr);
    const BlockOwner owner = read_owner(block);
    const std::uint32_t bytes = static_cast<std::uint32_t>(owner.size);
    const std::int32_t total = add_to_total(0U - bytes);
    char freeing_file[file_name_size];
    set_file_name(freeing_file, file);
    TRACE(4,
          "***** FREE(FREE_SIZE =%d TOTAL_SIZE =%d THREADNO =%u FILE =%s LINE =%d "
          "(THREADNO =%u FILE =%s LINE =%d))",
          owner.size, total, current_thread_no(), freeing_file, line, owner.thread_no, owner.file, owner.line);
    // The poison starts at the header and is as long as the user area: kept, memory readers of
    // core files rely on this extent. The barrier keeps the compiler from dropping it.
    memset(block, 0xFF, bytes);
    __asm__ volatile("" : : "r"(block) : "memory");
    free(block);
}
