#include <cstring>

#include "library_test.h"
#include "no_memory.h"
#include "tracked_allocation.h"

using namespace test;

// The tests call the real functions: --wrap is for what the library itself allocates.
extern "C" {
void *__real_kestal_calloc_debug(int count, int size, const char *file, int line, int debug);
void *__real_kestal_malloc_debug(int size, const char *file, int line, int debug);
void *__real_kestal_realloc_debug(char *ptr, int size, const char *file, int line, int debug);
}

class TrackedAllocation : public LibraryTest {
protected:
    static char *make(int count, int size)
    {
        return static_cast<char *>(__real_kestal_calloc_debug(count, size, "../common/some_long_name.cpp", 12, 1));
    }
    static void drop(void *ptr) { kestal_free_debug(ptr, "../x.cpp", 34, 1); }
    static bool is_zero(const char *ptr, int size)
    {
        return std::string(ptr, static_cast<std::size_t>(size)) == std::string(static_cast<std::size_t>(size), '\0');
    }
};

TEST_F(TrackedAllocation, OffKeepsNoHeaderNoTotalAndNoTrace)
{
    char *ptr = static_cast<char *>(__real_kestal_calloc_debug(3, 10, "../common/a.cpp", 1, 0));
    EXPECT_TRUE(is_zero(ptr, 30));
    ptr = static_cast<char *>(__real_kestal_realloc_debug(ptr, 60, "../common/a.cpp", 2, 0));
    ASSERT_NE(ptr, nullptr);
    EXPECT_EQ(tsize, 0);
    free(ptr);  // the system's own block: a header in front would make this fail
    char *other = static_cast<char *>(__real_kestal_malloc_debug(5, "../common/a.cpp", 3, 0));
    EXPECT_TRUE(is_zero(other, 5));
    kestal_free_debug(other, "../common/a.cpp", 4, 0);
    kestal_free_debug(nullptr, "../common/a.cpp", 5, 0);
    EXPECT_TRUE(p().traces.empty());
}

TEST_F(TrackedAllocation, CallocAndFreeAreCountedAndLogged)
{
    const unsigned thread = static_cast<unsigned>(pthread_self());
    char *ptr = make(3, 10);
    EXPECT_TRUE(is_zero(ptr, 30));
    EXPECT_EQ(tsize, 30);
    drop(ptr);
    EXPECT_EQ(tsize, 0);
    const std::string no = std::to_string(thread);
    EXPECT_EQ(p().texts(4), (std::vector<std::string>{"***** CALLOC(ALLOC_SIZE =30 TOTAL_SIZE =30 THREADNO =" + no +
                                                          " FILE =common/some_lon LINE =12)",
                                                      "***** FREE(FREE_SIZE =30 TOTAL_SIZE =0 THREADNO =" + no +
                                                          " FILE =x.cpp LINE =34 (THREADNO =" + no +
                                                          " FILE =common/some_lon LINE =12))"}));
}

TEST_F(TrackedAllocation, ReallocChangesTheTotalByTheDifference)
{
    char *ptr = make(3, 10);
    ptr[0] = 'A';
    ptr = static_cast<char *>(__real_kestal_realloc_debug(ptr, 10, "../common/b.cpp", 56, 1));
    EXPECT_EQ(tsize, 10);
    EXPECT_EQ(ptr[0], 'A');
    const std::string no = std::to_string(static_cast<unsigned>(pthread_self()));
    EXPECT_TRUE(p().traced(4, "***** REALLOC(ALLOC_SIZE =10  TOTAL_SIZE =10 THREADNO =" + no +
                                  " FILE =common/b.cpp LINE =56(PRESIZE = 30 THREADNO =" + no +
                                  " FILE =common/some_lon LINE =12))"));
    ptr = static_cast<char *>(__real_kestal_realloc_debug(ptr, 5000, "../common/b.cpp", 57, 1));
    EXPECT_EQ(tsize, 5000);
    drop(ptr);
    EXPECT_EQ(tsize, 0);
}

TEST_F(TrackedAllocation, HeaderIsThirtyTwoBytesInFrontOfTheBlock)
{
    char *ptr = make(1, 7);
    const char *header = ptr - 32;
    std::uint32_t thread;
    std::int32_t total;
    std::int32_t size;
    std::int32_t line;
    memcpy(&thread, header, 4);
    memcpy(&total, header + 4, 4);
    memcpy(&size, header + 8, 4);
    memcpy(&line, header + 28, 4);
    EXPECT_EQ(thread, static_cast<std::uint32_t>(pthread_self()));
    EXPECT_EQ(total, 7);
    EXPECT_EQ(size, 7);
    EXPECT_EQ(std::string(header + 12), "common/some_lon");
    EXPECT_EQ(line, 12);
    drop(ptr);
}

TEST_F(TrackedAllocation, NoMemoryGivesNullAndCountsNothing)
{
    if (!memory_can_be_limited) {
        GTEST_SKIP() << "a sanitizer ends the process instead";
    }
    constexpr int large = 1 << 30;
    char *small = make(1, 100);
    const int before = static_cast<int>(tsize);
    void *fresh;
    void *grown;
    {
        const NoMoreMemory limit;
        fresh = make(1, large);
        grown = __real_kestal_realloc_debug(small, large, "../x.cpp", 1, 1);
    }
    EXPECT_EQ(fresh, nullptr);
    EXPECT_EQ(grown, nullptr);
    EXPECT_EQ(static_cast<int>(tsize), before);
    drop(small);  // it stays valid
    EXPECT_EQ(tsize, 0);
}

TEST_F(TrackedAllocation, MallocIsZeroedToo)
{
    char *ptr = static_cast<char *>(__real_kestal_malloc_debug(100, "../common/a.cpp", 1, 1));
    EXPECT_TRUE(is_zero(ptr, 100));
    EXPECT_EQ(p().count("CALLOC(ALLOC_SIZE =100 "), 1);
    drop(ptr);
}

TEST_F(TrackedAllocation, SizeProductWrapsInThirtyTwoBits)
{
    char *ptr = make(65536, 65537);  // 2^32 + 65536
    ASSERT_NE(ptr, nullptr);
    EXPECT_EQ(tsize, 65536);
    drop(ptr);
    EXPECT_EQ(tsize, 0);
}

TEST_F(TrackedAllocation, FileNamesShorterThanWhatIsSkippedAreEmpty)
{
    void *ptr = __real_kestal_calloc_debug(1, 1, "ab", 1, 1);
    EXPECT_EQ(p().count("FILE = LINE =1"), 1);
    kestal_free_debug(ptr, nullptr, 2, 1);
    EXPECT_EQ(p().count("FILE = LINE =2"), 1);
}

TEST_F(TrackedAllocation, NullWithTrackingIsRefused)
{
    EXPECT_EQ(__real_kestal_realloc_debug(nullptr, 10, "../a.cpp", 1, 1), nullptr);
    kestal_free_debug(nullptr, "../a.cpp", 1, 1);
    EXPECT_EQ(tsize, 0);
    EXPECT_TRUE(p().traces.empty());
}
