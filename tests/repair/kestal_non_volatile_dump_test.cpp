#include <stdlib.h>
#include <string.h>

#include <sstream>

#include "library_test.h"
#include "text_lines.h"

using namespace test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

// The dump of some bytes, by way of a file.
std::string dumped(std::string bytes, int length)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *out = open_memstream(&text, &size);
    kestal_non_volatile_dump(out, bytes.data(), length);
    fclose(out);
    const std::string all(text, size);
    free(text);
    return all;
}

std::string dumped(const std::string &bytes) { return dumped(bytes, static_cast<int>(bytes.size())); }

}  // namespace

class NvDump : public LibraryTest {
protected:
    char file[16] = "/tmp/dump";
};

TEST_F(NvDump, LinesOfSixteenBytes)
{
    const std::string bytes(
        "ENVV\2\0\0\0 ~\x7f\x1f\x80\xff"
        "ab",
        16);
    EXPECT_EQ(dumped(bytes), "00000000: 454e5656 02000000 207e7f1f 80ff6162  ENVV.... ~....ab\n");
    EXPECT_EQ(dumped(bytes + bytes).substr(64, 10), "00000010: ");
}

TEST_F(NvDump, ShortLastLineIsFilledWithBlanks)
{
    EXPECT_EQ(dumped("ABCDE"), "00000000: 41424344 45" + std::string(26, ' ') + "ABCDE" + std::string(11, ' ') + "\n");
    for (int length = 1; length <= 33; ++length) {
        const std::string all = dumped(std::string(33, 'x'), length);
        EXPECT_EQ(all.size(), static_cast<std::size_t>((length + 15) / 16 * 64)) << length;
        EXPECT_EQ(std::count(all.begin(), all.end(), 'x'), length);
    }
    EXPECT_EQ(dumped("A", 0), "");
    EXPECT_EQ(dumped("A", -1), "");
    kestal_non_volatile_dump(nullptr, nullptr, 5);
}

TEST_F(NvDump, ManyLinesComeWholeAndInOrder)
{
    const std::string bytes(100000, 'm');
    const std::vector<std::string> lines = lines_of(dumped(bytes));
    ASSERT_EQ(lines.size(), 6250u);
    EXPECT_THAT(lines[6249], StartsWith("00018690: "));
}

TEST_F(NvDump, WithoutAFileItGoesToTheLog)
{
    char bytes[] = "0123456789abcdefg";
    kestal_non_volatile_dump(nullptr, bytes, 17);
    EXPECT_THAT(p().texts(4), ElementsAre("00000000: 30313233 34353637 38396162 63646566  0123456789abcdef",
                                          "00000010: 67" + std::string(35, ' ') + "g" + std::string(15, ' ')));
}

TEST_F(NvDump, NamedRegionsOfTheImage)
{
    kestal_set_magic_to_nv_header();
    p().calls.clear();
    p().traces.clear();
    EXPECT_EQ(kestal_non_volatile_dumpout(file), 0);
    EXPECT_THAT(p().calls_of("nv_"),
                ElementsAre("nv_read 8 8", "nv_read 16 8", "nv_read 24 320", "nv_read 404 196", "nv_read 600 64"));
    const std::string text = read_file(file);
    EXPECT_THAT(text, StartsWith(">>>>> OUTPUT TIME: "));
    EXPECT_THAT(text, HasSubstr("***** NV MEMORY [HEADER] *****\n"
                                "00000000: 454e5656 02000000" +
                                std::string(20, ' ') + "ENVV...." + std::string(8, ' ') +
                                "\n***** NV MEMORY [KESTA_SYNC] *****\n"));
    for (const char *name : {"CNT_COMMON_TBL", "FILLER", "INNERLOCK"}) {
        EXPECT_THAT(text, HasSubstr(std::string("***** NV MEMORY [") + name + "] *****\n"));
    }
    EXPECT_EQ(p().traces.front().text, "[kestal_non_volatile_dumpout] start filename=/tmp/dump");
    EXPECT_EQ(p().traces.back(),
              (Trace{5, "[kestal_non_volatile_dumpout] end. ret=0", "../common/kestal_non_volatile_dump.cpp"}));
    EXPECT_TRUE(p().traced(5, "[kestal_non_volatile_dumpout] read nv memory. (FILLER)"));
}

TEST_F(NvDump, NamedRegionsInTheLog)
{
    EXPECT_EQ(kestal_non_volatile_dumpout(nullptr), 0);
    const std::vector<std::string> lines = p().texts(4);
    EXPECT_EQ(lines.size(), 1u + 5 + 1 + 1 + 20 + 13 + 4);
    EXPECT_THAT(lines[0], StartsWith(">>>>> OUTPUT TIME: "));
    EXPECT_EQ(lines[1], "***** NV MEMORY [HEADER] *****");
}

TEST_F(NvDump, AnyStretchInPages)
{
    for (const auto &[size, pages] : {std::pair{0, 1}, {100, 1}, {255, 1}, {256, 2}, {512, 3}}) {
        p().calls.clear();
        EXPECT_EQ(kestal_non_volatile_dumpout_assign(file, 2, 512, size), 0);
        EXPECT_EQ(p().calls_of("nv_read").size(), static_cast<std::size_t>(pages)) << size;
        const std::string text = read_file(file);
        EXPECT_THAT(text, HasSubstr("\n***** NV MEMORY [region=2/offset=512/size=" + std::to_string(size) +
                                    "] *****\n***** NV MEMORY [0/" + std::to_string(pages) + "] *****\n00000000: "));
        EXPECT_EQ(p().calls_of("nv_read").back(), "nv_read " + std::to_string(512 + 256 * (pages - 1)) + " 256");
    }
    EXPECT_EQ(kestal_non_volatile_dumpout_assign(nullptr, 1, 0, 0), 0);
    EXPECT_THAT(p().calls_of("nv_read_region1"), ElementsAre("nv_read_region1 0 256"));
    EXPECT_TRUE(p().traced(4, "***** NV MEMORY [region=1/offset=0/size=0] *****\n")) << "its newline stays in the log";
}

TEST_F(NvDump, ReadingTriesFiveTimes)
{
    char bytes[8];
    p().fail_kind("nv_read", 0, 4);
    EXPECT_EQ(kestal_non_volatile_r_memory(2, bytes, 0, 8), 0);
    EXPECT_EQ(p().calls_of("usleep").size(), 4u);
    EXPECT_TRUE(p().traced(1, "[kestal_non_volatile_r_memory_debug] [3/5] NV(memory) Read ERROR result=-5"));
    EXPECT_TRUE(p().traced(5, "[kestal_non_volatile_r_memory_debug] END "));
    p().fail_kind("nv_read", 0, 5);
    EXPECT_EQ(kestal_non_volatile_r_memory(2, bytes, 0, 8), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_non_volatile_r_memory_debug] NV(memory) ACCESS ERROR "));
    EXPECT_EQ(kestal_non_volatile_r_memory(2, nullptr, 0, 0), -931);
    EXPECT_EQ(p().traces.back().text, "[kestal_non_volatile_r_memory_debug] Data area pointer is INVALID");
    EXPECT_EQ(kestal_non_volatile_r_memory(2, bytes, 0, 0), -931);
    EXPECT_EQ(p().traces.back().text, "[kestal_non_volatile_r_memory_debug] Data Size is INVALID(Size=0)");
}

TEST_F(NvDump, FailuresAreTold)
{
    char missing[] = "/none/dump";
    EXPECT_EQ(kestal_non_volatile_dumpout(missing), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_non_volatile_dumpout] fopen error. errno=2 filename=/none/dump"));
    EXPECT_EQ(kestal_non_volatile_dumpout_assign(missing, 2, 0, 0), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_non_volatile_dumpout_assign] fopen error. errno=2 filename=/none/dump"));
    p().fail_kind("nv_read", 0, 5);
    EXPECT_EQ(kestal_non_volatile_dumpout(file), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_non_volatile_dumpout] kestal_non_volatile_r_memory error."));
    p().fail_kind("nv_read", 1, 5);
    p().traces.clear();
    EXPECT_EQ(kestal_non_volatile_dumpout_assign(file, 2, 0, 512), -1);
    EXPECT_EQ(p().traces.back().text, "[kestal_non_volatile_dumpout] end. ret=-1");
    p().fail_kind("alloc", 0, 1);
    EXPECT_EQ(kestal_non_volatile_dumpout(file), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_non_volatile_dumpout] CALLOC error. size=8 errno=12"));
    char full[] = "/dev/full";
    EXPECT_EQ(kestal_non_volatile_dumpout(full), -1) << "what didn't reach the file is no success";
    EXPECT_EQ(p().count("[kestal_non_volatile_dumpout] fclose error. errno=28"), 1);
}
