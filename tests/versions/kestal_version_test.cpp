#include <limits.h>

#include <array>
#include <cstdint>
#include <random>
#include <vector>

#include "library_test.h"

using namespace test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct Area {
    int area;
    int block;           // of controller 1
    std::size_t offset;  // in the NV image; 0: none
    const char *mirror;  // null: none
    const char *set_line;
};

const std::array<Area, 6> areas{{
    {1, 51, nv_numbering_version, "kesta_verid", "[set_version] ---> Numbering Version=41"},
    {2, 53, nv_accept_version, nullptr, "[set_version] ---> Accept Version=41"},
    {3, 62, nv_version0 + 8, "kesta_ver1", "[set_version] ---> Current(CNT1) Version=41"},
    {4, 52, nv_backup_version, "kesta_verback", "[set_version] ---> Backup Version=41"},
    {5, 72, nv_status0 + 8, nullptr, nullptr},
    {6, 55, 0, "kesta_reboot", "[set_version] ---> Reboot Version=41"},
}};

std::string stored(int value) { return {reinterpret_cast<const char *>(&value), sizeof(value)}; }

}  // namespace

class Version : public LibraryTest {
protected:
    // The number in both places of an area, different ones.
    static void hold(const Area &area, int memory, int mirror)
    {
        if (area.offset != 0) {
            p().set_int(area.offset, memory);
        }
        if (area.mirror) {
            p().sysback[area.mirror] = {stored(mirror)};
        }
    }
};

TEST_F(Version, ByModeTheMirrorComesFirst)
{
    for (const Area &area : areas) {
        hold(area, 11, 22);
        const int expected = area.mirror ? 22 : 11;
        EXPECT_EQ(kestal_read_version_nolock(area.area, 1, 1), expected) << area.area;
        EXPECT_TRUE(p().traced(5, "[read_version_nolock] Get block_id = " + std::to_string(area.block)));
        EXPECT_EQ(kestal_read_version(area.area, 1, 1), expected);
    }
    EXPECT_TRUE(inner_lock_is_free());
}

TEST_F(Version, OtherwiseMemoryComesFirst)
{
    for (const Area &area : areas) {
        for (const int mode : {0, 2, -1}) {
            hold(area, 11, 22);
            const int expected = area.offset != 0 ? 11 : 22;
            EXPECT_EQ(kestal_read_version_nolock(area.area, 1, mode), expected) << area.area;
            EXPECT_EQ(kestal_read_version(area.area, 1, mode), expected);
        }
    }
}

TEST_F(Version, NegativeNumberInMemoryIsReadAgainByMode)
{
    hold(areas[0], -1, 22);
    EXPECT_EQ(kestal_read_version_nolock(1, 1, 0), 22);
    EXPECT_TRUE(p().traced(2, "[read_version_nolock] non Volatile Read ERROR rtn=0"));
}

TEST_F(Version, FailedMemoryIsReadAgainByMode)
{
    hold(areas[0], 11, 22);
    p().fail_kind("nv_read");
    EXPECT_EQ(kestal_read_version_nolock(1, 1, 0), 22);
    EXPECT_TRUE(p().traced(2, "[read_version_nolock] non Volatile Read ERROR rtn=-1"));
}

TEST_F(Version, RebootAreaHasNoPlaceInMemory)
{
    hold(areas[5], 0, 22);
    EXPECT_EQ(kestal_read_version_nolock(6, 0, 0), 22);
    EXPECT_TRUE(p().traced(2, "[read_version_nolock] non Volatile Read ERROR rtn=0"));
    EXPECT_THAT(p().calls_of("nv_"), IsEmpty());

    kestal_rw_set_boot_mode(2);
    p().traces.clear();
    EXPECT_EQ(kestal_read_version_nolock(6, 0, 1), -1);
    EXPECT_THAT(p().texts(1), IsEmpty()) << "nobody has it: no error";
    EXPECT_TRUE(p().traced(4, "[read_version_nolock] ...Read version=-1 ..."));
}

TEST_F(Version, WithoutAccessNothingIsReadOrWritten)
{
    kestal_rw_set_boot_mode(3);
    hold(areas[3], 11, 22);
    EXPECT_EQ(kestal_read_version_nolock(4, 0, 1), -1);
    EXPECT_EQ(kestal_set_version_nolock(4, 0, 41), 0);
    EXPECT_EQ(p().int_at(nv_backup_version), 11);
}

TEST_F(Version, SetWritesBothPlacesAndTellsTheArea)
{
    for (const Area &area : areas) {
        for (const bool locked : {false, true}) {
            hold(area, 11, 22);
            p().traces.clear();
            EXPECT_EQ(locked ? kestal_set_version(area.area, 1, 41) : kestal_set_version_nolock(area.area, 1, 41), 0);
            if (area.offset != 0) {
                EXPECT_EQ(p().int_at(area.offset), 41);
            }
            if (area.mirror) {
                EXPECT_EQ(p().sysback[area.mirror].bytes, stored(41));
            }
            EXPECT_EQ(p().count("[set_version] --->"), area.set_line ? 1 : 0);
            if (area.set_line) {
                EXPECT_TRUE(p().traced(4, area.set_line));
            }
        }
    }
}

TEST_F(Version, PlainFormsHoldTheInnerLockAroundTheAccessOnly)
{
    hold(areas[1], 11, 0);
    EXPECT_EQ(kestal_read_version(2, 2, 0), 11);
    EXPECT_THAT(p().calls,
                ElementsAre("nv_read 600 64", "nv_write 600 16", "nv_read 600 64", "nv_read 304 4", "nv_write 600 16"));
    EXPECT_EQ(p().traces.front().text, "[read_version] START");
    EXPECT_EQ(p().traces.back(),
              (Trace{5, "[read_version] Get Numbering Version. versionno=11", "../common/kestal_version.cpp"}));
    p().calls.clear();
    p().traces.clear();
    EXPECT_EQ(kestal_set_version(2, 2, 12), 0);
    EXPECT_THAT(p().calls_of("nv_"), ElementsAre("nv_read 600 64", "nv_write 600 16", "nv_read 600 64",
                                                 "nv_write 304 4", "nv_write 600 16"));
    EXPECT_TRUE(p().traced(5, "[set_version] Set Version Value(2) value=12."));
    EXPECT_EQ(p().traces.back().text, "[set_version] END ret=0");
}

TEST_F(Version, ArgumentsAreCheckedBeforeAnyAccess)
{
    struct Operation {
        const char *tag;
        int (*call)(int, int);
    };
    const Operation operations[] = {
        {"read_version_nolock",
         [](int area, int cnt) {
             return kestal_read_version_nolock(area, cnt, 1);
         }},
        {"set_version_nolock",
         [](int area, int cnt) {
             return kestal_set_version_nolock(area, cnt, 1);
         }},
        {"read_version",
         [](int area, int cnt) {
             return kestal_read_version(area, cnt, 1);
         }},
        {"set_version",
         [](int area, int cnt) {
             return kestal_set_version(area, cnt, 1);
         }},
    };
    for (const Operation &operation : operations) {
        for (const int area : {0, 7, -1, INT_MAX}) {
            EXPECT_EQ(operation.call(area, 4), -931) << "the area is checked first";
            EXPECT_EQ(p().traces.back().text,
                      "[" + std::string(operation.tag) + "] Version Area ERROR verarea=" + std::to_string(area));
        }
        for (const int cnt : {4, -1, INT_MIN}) {
            EXPECT_EQ(operation.call(1, cnt), -931) << "for every area";
            EXPECT_EQ(p().traces.back().text,
                      "[" + std::string(operation.tag) + "] CntNo ERROR cntno=" + std::to_string(cnt));
        }
    }
    EXPECT_EQ(kestal_compare_version(4, 1, 1), -931);
    EXPECT_EQ(p().traces.back().text, "[compare_version] CntNo ERROR cntno=4");
    EXPECT_THAT(p().calls, IsEmpty());
}

TEST_F(Version, FailuresOfTheInnerLockAreTold)
{
    p().fail_kind("nv_read", 0, 5);
    EXPECT_EQ(kestal_read_version(1, 0, 1), -1);
    EXPECT_TRUE(p().traced(1, "[read_version] Inner Lock ERROR rtn=-1"));
    p().fail_kind("nv_read", 0, 5);
    EXPECT_EQ(kestal_set_version(1, 0, 1), -1);
    EXPECT_TRUE(p().traced(1, "[set_version] Inner Lock ERROR rtn=-1"));
    EXPECT_EQ(p().count("END ret"), 0);

    p().fail_kind("nv_write", 1, 5);
    hold(areas[1], 11, 0);
    EXPECT_EQ(kestal_read_version(2, 0, 0), -1) << "though the number was read";
    EXPECT_TRUE(p().traced(1, "[read_version] Inner UnLock ERROR rtn=-172"));
    p().nv.clear();
    p().fail_kind("nv_write", 2, 5);
    EXPECT_EQ(kestal_set_version(2, 0, 12), -1) << "though the number was written";
    EXPECT_EQ(p().int_at(nv_accept_version), 12);
    EXPECT_TRUE(p().traced(1, "[set_version] Inner UnLock ERROR rtn=-172"));
    EXPECT_TRUE(p().traced(5, "[set_version] END ret=-1"));
}

TEST_F(Version, FailuresOfTheAccessAreTold)
{
    EXPECT_EQ(kestal_set_version(1, 0, 3), 0);
    p().fail_kind("nv_read", 2);
    p().sysback.clear();
    EXPECT_EQ(kestal_read_version(1, 0, 1), -1);
    EXPECT_TRUE(p().traced(1, "[read_version_nolock] Volatile Read ERROR rtn=-1"));
    EXPECT_TRUE(p().traced(1, "[read_version] Get Version ERROR rtn=-1"));
    EXPECT_TRUE(inner_lock_is_free());

    reset();
    p().fail_kind("sb_open");
    EXPECT_EQ(kestal_set_version(1, 0, 3), -1);
    EXPECT_TRUE(p().traced(1, "[set_version_nolock] Volatile Read ERROR rtn=-1")) << "the text of a failed write";
    EXPECT_TRUE(p().traced(1, "[set_version] Set Version ERROR rtn=-1"));
    EXPECT_TRUE(p().traced(5, "[set_version] END ret=-1"));
    EXPECT_TRUE(inner_lock_is_free());
}

// ------------------------------------------------------------------------------------ distance

namespace {

// The rule over wide integers: what the two's-complement arithmetic has to give.
int expected_distance(int from, int to)
{
    const std::int64_t exact = static_cast<std::int64_t>(to) - from;
    const auto wrapped = static_cast<std::int32_t>(static_cast<std::uint32_t>(exact));
    const std::int64_t less = static_cast<std::int64_t>(wrapped) - (wrapped < 0 ? 1 : 0);
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(less));
}

// Every number within 3 of the edges.
std::vector<int> edge_numbers()
{
    std::vector<int> numbers;
    for (const std::int64_t edge :
         {std::int64_t{0}, std::int64_t{1}, std::int64_t{INT_MAX}, std::int64_t{-1}, std::int64_t{INT_MIN}}) {
        for (int step = -3; step <= 3; ++step) {
            numbers.push_back(static_cast<std::int32_t>(static_cast<std::uint32_t>(edge + step)));
        }
    }
    return numbers;
}

}  // namespace

TEST_F(Version, DistanceOfExamples)
{
    EXPECT_EQ(kestal_distance_version(5, 9), 4);
    EXPECT_EQ(kestal_distance_version(9, 5), -5);
    EXPECT_EQ(kestal_distance_version(INT_MAX, 1), -2147483647);
    EXPECT_EQ(kestal_distance_version(3, 3), 0);
    EXPECT_THAT(p().traces, IsEmpty());
}

TEST_F(Version, DistanceAtTheEdgesAndAllOver)
{
    for (const int from : edge_numbers()) {
        for (const int to : edge_numbers()) {
            EXPECT_EQ(kestal_distance_version(from, to), expected_distance(from, to)) << from << " " << to;
        }
    }
    std::mt19937 random(3);
    for (int i = 0; i < 200000; ++i) {
        const int from = static_cast<int>(random());
        const int to = static_cast<int>(random());
        ASSERT_EQ(kestal_distance_version(from, to), expected_distance(from, to)) << from << " " << to;
    }
}

TEST_F(Version, WrappedDistanceIsSmallerThanAnyOther)
{
    std::mt19937 random(4);
    std::uniform_int_distribution<int> versions(1, INT_MAX);
    for (int i = 0; i < 100000; ++i) {
        const int older = versions(random);
        const int newer = versions(random);
        const int distance = kestal_distance_version(older, newer);
        if (newer >= older) {
            ASSERT_EQ(distance, newer - older);
        } else {
            ASSERT_LT(distance, 0);
            // One less than the plain difference: the forward distance across the wrap, less 2^31.
            const std::int64_t forward = std::int64_t{INT_MAX} - older + newer;
            ASSERT_EQ(distance, forward - (std::int64_t{1} << 31)) << older << " " << newer;
        }
    }
}

// ------------------------------------------------------------------------------------ comparison

class VersionComparison : public Version {
protected:
    int compare(int current, int backup, int numbering)
    {
        write_file("/etc/kesta_sys/version", std::to_string(current) + "\n");
        p().traces.clear();
        return kestal_compare_version(0, backup, numbering);
    }
    std::string decision() { return p().traces.back().text; }
};

TEST_F(VersionComparison, RulesInTheirOrder)
{
    struct Case {
        int current, backup, numbering, result;
        const char *line;
    };
    const Case cases[] = {
        {5, 5, 5, 0, "[compare_version] VERSION is SAME (backup=5 cnt=5)"},
        {0, 0, 9, 0, "[compare_version] VERSION is SAME (backup=0 cnt=0)"},
        {5, 9, 9, 1, "[compare_version] Same Numbering=Back Version. rtn=1"},
        {9, 5, 9, 2, "[compare_version] Same Numbering=Current Version. rtn=2"},
        {0, 3, 4, 1, "[compare_version] Current Version = 0"},
        {3, 0, 4, 2, "[compare_version] Backup Version = 0"},
        {5, 7, 9, 1, "[compare_version] Distance Backup Version(back=2,cur=4)"},
        {7, 5, 9, 2, "[compare_version] Distance Current Version(back=4,cur=2)"},
        {8, 6, 7, 2, "[compare_version] Distance Current Version(back=1,cur=-2)"},
        {-1, 6, 7, 1, "[compare_version] Distance Backup Version(back=1,cur=8)"},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(compare(c.current, c.backup, c.numbering), c.result) << c.line;
        EXPECT_EQ(decision(), c.line);
        EXPECT_EQ(p().traces.back().level, 3);
        EXPECT_TRUE(p().traced(3, "[compare_version] VERSION :flash=" + std::to_string(c.current) + " backup=" +
                                      std::to_string(c.backup) + " numbering=" + std::to_string(c.numbering) + " "));
        EXPECT_EQ(p().traced(3, "[compare_version] Back notequal Current Version."),
                  c.result != 0 && c.backup != c.numbering && c.current != c.numbering);
        EXPECT_TRUE(inner_lock_is_free());
    }
}

TEST_F(VersionComparison, SmallerDistanceWinsAlsoAcrossTheWrap)
{
    EXPECT_EQ(compare(5, 6, 4), 1);
    EXPECT_EQ(decision(), "[compare_version] Distance Backup Version(back=-3,cur=-2)");
    EXPECT_EQ(compare(6, 5, 4), 2);
    EXPECT_EQ(compare(INT_MAX, 2, 3), 2) << "a wrapped distance is the smaller one";
    EXPECT_EQ(decision(), "[compare_version] Distance Current Version(back=1,cur=-2147483645)");
}

namespace {

int expected_decision(int current, int backup, int numbering)
{
    if (current == backup) {
        return 0;
    }
    if (backup == numbering) {
        return 1;
    }
    if (current == numbering) {
        return 2;
    }
    if (current == 0) {
        return 1;
    }
    if (backup == 0) {
        return 2;
    }
    return expected_distance(backup, numbering) <= expected_distance(current, numbering) ? 1 : 2;
}

}  // namespace

TEST_F(VersionComparison, EdgesAgainstEachOther)
{
    std::vector<int> numbers;
    for (const int number : edge_numbers()) {
        if (number >= 0) {  // a negative one is read, not compared
            numbers.push_back(number);
        }
    }
    for (const int current : numbers) {
        write_file("/etc/kesta_sys/version", std::to_string(current) + "\n");
        for (const int backup : numbers) {
            for (const int numbering : numbers) {
                ASSERT_EQ(kestal_compare_version(0, backup, numbering), expected_decision(current, backup, numbering))
                    << current << " " << backup << " " << numbering;
            }
        }
        p().traces.clear();
        p().calls.clear();
    }
}

TEST_F(VersionComparison, NumbersAllOver)
{
    std::mt19937 random(5);
    std::uniform_int_distribution<int> versions(0, INT_MAX);
    for (int i = 0; i < 3000; ++i) {
        const int current = versions(random);
        const int backup = versions(random);
        const int numbering = versions(random);
        ASSERT_EQ(compare(current, backup, numbering), expected_decision(current, backup, numbering))
            << current << " " << backup << " " << numbering;
        p().calls.clear();
    }
}

TEST_F(VersionComparison, NegativeNumbersAreReadUnderOneLock)
{
    hold(areas[0], 9, 9);
    hold(areas[3], 7, 7);
    EXPECT_EQ(compare(5, -1, -7), 1);
    EXPECT_EQ(decision(), "[compare_version] Distance Backup Version(back=2,cur=4)");
    EXPECT_THAT(p().calls_of("nv_write"), ElementsAre("nv_write 600 16", "nv_write 600 16"));
    EXPECT_EQ(compare(5, 9, -1), 1) << "only the other one";
    EXPECT_TRUE(inner_lock_is_free());
}

TEST_F(VersionComparison, MissingNumbersAreTold)
{
    kestal_rw_set_boot_mode(3);
    EXPECT_EQ(compare(5, -1, -1), -1);
    EXPECT_TRUE(p().traced(1, "[compare_version] Get Version(BACKUP,0) ERROR rtn=-1"));
    EXPECT_TRUE(inner_lock_is_free());
    EXPECT_EQ(compare(5, 4, -1), -1);
    EXPECT_TRUE(p().traced(1, "[compare_version] Get Version(NUMBERING) ERROR rtn=-1"));
    EXPECT_TRUE(inner_lock_is_free());
}

TEST_F(VersionComparison, UnreadableFlashClearsTheOwnSlotThoughNotTaken)
{
    write_file("/etc/kesta_sys/version", "x");
    p().set_int(nv_slot(0), 1);
    EXPECT_EQ(kestal_compare_version(2, 1, 1), -1);
    EXPECT_TRUE(p().traced(1, "[compare_version] Get Version(CNT(flash) ,2) ERROR rtn=-1"));
    EXPECT_EQ(p().int_at(nv_slot(0)), 0) << "clear afterwards in any case";
    EXPECT_THAT(p().calls_of("nv_"), ElementsAre("nv_write 600 16"));

    p().fail_kind("nv_write");
    EXPECT_EQ(kestal_compare_version(2, 1, 1), -1);
    EXPECT_TRUE(p().traced(1, "[compare_version] Inner UnLock ERROR rtn=-172"));
}

TEST_F(VersionComparison, FailuresOfTheInnerLockAreTold)
{
    write_file("/etc/kesta_sys/version", "5\n");
    p().fail_kind("nv_read", 0, 5);
    EXPECT_EQ(kestal_compare_version(0, 1, 2), -1);
    EXPECT_TRUE(p().traced(1, "[compare_version] Inner Lock ERROR rtn=-1"));
    p().fail_kind("nv_write", 1, 5);
    EXPECT_EQ(kestal_compare_version(0, 1, 2), -1) << "though the numbers are known";
    EXPECT_TRUE(p().traced(1, "[compare_version] Inner UnLock ERROR rtn=-172"));
    EXPECT_EQ(p().count("VERSION :flash"), 0);
}

TEST_F(VersionComparison, EveryFaultIsMetWithoutALockLeft)
{
    sweep_faults(
        [] {
            reset();
            write_file("/etc/kesta_sys/version", "5\n");
            hold(areas[0], 9, 9);
            hold(areas[3], 7, 7);
        },
        [] { return kestal_compare_version(0, -1, -1); },
        [](int result, bool) {
            EXPECT_TRUE(result == 1 || result == -1);
            if (result == 1) {
                EXPECT_TRUE(inner_lock_is_free());
            }
        });
}
