#include <limits.h>
#include <sys/stat.h>

#include "library_test.h"

using namespace test;
using testing::ElementsAre;

namespace {

const std::string version_file = "/etc/kesta_sys/version";
const char *const paths[] = {"/etc/kesta_sys/version",
                             "/etc/kesta_sys/reboot",
                             "/etc/kesta_sys/cntno",
                             "/etc/kesta_sys/rebootcount",
                             "/tmp/kesta_sys/tmp/env_restore2_rcpdir/master-version",
                             "/tmp/kesta_sys/tmp/env_restore2_rcpdir/master-reboot"};

constexpr int untouched = 777;

int read_version(int &version, int type = 0) { return kestal_read_flash_version_file(&version, type); }

}  // namespace

class FlashVersionFile : public LibraryTest {
protected:
    int version = untouched;
};

TEST_F(FlashVersionFile, EachTypeHasItsPath)
{
    run_shell("mkdir -p /tmp/kesta_sys/tmp/env_restore2_rcpdir");
    for (int type = 0; type < 6; ++type) {
        write_file(paths[type], std::to_string(100 + type) + "\n");
        p().calls.clear();
        EXPECT_EQ(read_version(version, type), 0);
        EXPECT_EQ(version, 100 + type);
        EXPECT_THAT(p().calls, ElementsAre(std::string("fopen ") + paths[type]));
    }
    for (int type = 0; type < 4; ++type) {
        EXPECT_EQ(kestal_set_flash_version_file(200 + type, type), 0);
        EXPECT_EQ(read_file(paths[type]), std::to_string(200 + type) + "\n");
    }
}

TEST_F(FlashVersionFile, MissingFileStandsForMinusOne)
{
    EXPECT_EQ(read_version(version), 0);
    EXPECT_EQ(version, -1);
    EXPECT_THAT(p().texts(4), ElementsAre("[read_flash_version_file] flash_version_file=/etc/kesta_sys/version not "
                                          "exist -> version=-1"));
}

TEST_F(FlashVersionFile, FirstWordCounts)
{
    const std::pair<const char *, int> cases[] = {
        {"42\n", 42},   {"42", 42},
        {"-1\n", -1},   {"  7 8 9\n", 7},
        {"\n\n5\n", 5}, {"0", 0},
        {"0012", 12},   {"2147483647\n", 2147483647},
        {"1 x", 1},     {"12345678901\n", 1234567890},  // cut to ten characters
    };
    for (const auto &[text, expected] : cases) {
        write_file(version_file, text);
        EXPECT_EQ(read_version(version), 0) << text;
        EXPECT_EQ(version, expected) << text;
    }
    EXPECT_EQ(p().traces.back().text, "[read_flash_version_file] END version=1234567890");
}

TEST_F(FlashVersionFile, NoOverflowCheck)
{
    write_file(version_file, "4294967295\n");
    EXPECT_EQ(read_version(version), 0);
    EXPECT_EQ(version, -1);
}

TEST_F(FlashVersionFile, WhatIsNoNumberIsRefused)
{
    const std::pair<const char *, const char *> cases[] = {
        {"-5", "-5"}, {"4x", "4x"}, {"", ""}, {"\n \n", ""}, {"-", "-"}, {"-10", "-10"}, {"+3", "+3"},
    };
    for (const auto &[text, word] : cases) {
        write_file(version_file, text);
        EXPECT_EQ(read_version(version), -1) << text;
        EXPECT_EQ(version, untouched) << text;
        EXPECT_EQ(p().traces.back().text,
                  "[read_flash_version_file] isdigit check ERROR "
                  "flash_version_file=/etc/kesta_sys/version read_buf=" +
                      std::string(word));
        EXPECT_EQ(p().traces.back().level, 1);
    }
}

TEST_F(FlashVersionFile, FolderInItsPlaceIsRefused)
{
    run_shell("mkdir " + version_file);
    EXPECT_EQ(read_version(version), -1);
    EXPECT_EQ(version, untouched);
    EXPECT_EQ(kestal_set_flash_version_file(1, 0), -1);
    EXPECT_TRUE(p().traced(1,
                           "[set_flash_version_file] Flash flash_version_file=/etc/kesta_sys/"
                           "version Open ERROR errno=21"));
    run_shell("rmdir " + version_file);
}

TEST_F(FlashVersionFile, OtherOpenFailureIsAnError)
{
    p().fail_kind("fopen");
    p().fault_errno = 13;
    EXPECT_EQ(read_version(version), -1);
    EXPECT_EQ(version, untouched);
    EXPECT_TRUE(p().traced(1,
                           "[read_flash_version_file] flash_version_file=/etc/kesta_sys/version "
                           "Open ERROR errno=13"));
}

TEST_F(FlashVersionFile, ArgumentsAreChecked)
{
    EXPECT_EQ(kestal_read_flash_version_file(nullptr, 0), -931);
    EXPECT_EQ(p().traces.back().text, "[read_flash_version_file] Argument ERROR version=NULL");
    for (const int type : {-1, 6, INT_MAX, INT_MIN}) {
        EXPECT_EQ(read_version(version, type), -931);
        EXPECT_EQ(p().traces.back().text, "[read_flash_version_file] Argument ERROR f_type=" + std::to_string(type));
    }
    for (const int type : {-1, 4, 5, 6}) {
        EXPECT_EQ(kestal_set_flash_version_file(1, type), -931);
        EXPECT_EQ(p().traces.back().text, "[set_flash_version_file] Argument ERROR f_type=" + std::to_string(type));
    }
    for (const int bad : {-2, INT_MIN}) {
        EXPECT_EQ(kestal_set_flash_version_file(bad, 0), -931);
        EXPECT_EQ(p().traces.back().text, "[set_flash_version_file] Argument ERROR version=" + std::to_string(bad));
    }
    EXPECT_EQ(version, untouched);
    EXPECT_TRUE(p().calls.empty());
}

TEST_F(FlashVersionFile, SetReplacesTheFile)
{
    write_file(version_file, "a much longer text than a number\n");
    for (const int value : {-1, 0, 1, INT_MAX}) {
        p().traces.clear();
        EXPECT_EQ(kestal_set_flash_version_file(value, 0), 0);
        EXPECT_EQ(read_file(version_file), std::to_string(value) + "\n");
        EXPECT_THAT(
            p().traces,
            ElementsAre(Trace{5, "[set_flash_version_file] START version=" + std::to_string(value) + " f_type=0",
                              "../common/kestal_flash_version_file.cpp"},
                        Trace{4,
                              "[set_flash_version_file] flash_version_file=" + version_file +
                                  " version=" + std::to_string(value),
                              "../common/kestal_flash_version_file.cpp"},
                        Trace{5, "[set_flash_version_file] END ret=0", "../common/kestal_flash_version_file.cpp"}));
    }
}

TEST_F(FlashVersionFile, FullDiskIsNoticedAndLeavesAnEmptyFile)
{
    ASSERT_EQ(mount_small("/etc/kesta_sys", 4096), 0);
    run_shell("cat /dev/zero > /etc/kesta_sys/filler 2> /dev/null; : > " + version_file);
    const int result = kestal_set_flash_version_file(12, 0);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(read_file(version_file), "");
    EXPECT_TRUE(p().traced(1,
                           "[set_flash_version_file] File Write Error "
                           "flash_version_file=/etc/kesta_sys/version len=3 result=-1 errno=28"));
    EXPECT_TRUE(p().traced(5, "[set_flash_version_file] END ret=-1"));
    unmount("/etc/kesta_sys");
}

TEST_F(FlashVersionFile, MemoryThatRunsOutIsTold)
{
    p().fail_kind("alloc");
    EXPECT_EQ(kestal_set_flash_version_file(12, 0), -1);
    EXPECT_TRUE(p().traced(1, "[set_flash_version_file] Buffer ERROR flash_version_file=/etc/kesta_sys/version"));
    EXPECT_EQ(read_file(version_file), "") << "the file was opened before the text was made";
}

TEST_F(FlashVersionFile, EveryFaultIsReported)
{
    sweep_faults([] { reset(); }, [] { return kestal_set_flash_version_file(12, 0); },
                 [](int result, bool met) { EXPECT_EQ(result, met ? -1 : 0); });
}

TEST_F(FlashVersionFile, SwitchIsOnAtStartAndConsultedByNobody)
{
    EXPECT_EQ(g_version_file_sync, 1);
    kestal_reset_version_file_sync();
    EXPECT_EQ(g_version_file_sync, 0);
    EXPECT_EQ(kestal_set_flash_version_file(3, 0), 0);
    EXPECT_EQ(read_file(version_file), "3\n");
    kestal_set_version_file_sync();
    EXPECT_EQ(g_version_file_sync, 1);
}
