#include <string.h>

#include "library_test.h"
#include "repair_state.h"

using namespace test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct Item {
    int block;
    std::size_t offset;  // 0: no place in memory
    std::size_t length;
    const char *mirror;
};
const Item all_items[] = {{31, nv_backup_name, 32, "kesta_sysback"},
                          {32, nv_accept_name, 32, "kesta_sysacpt"},
                          {51, nv_numbering_version, 4, "kesta_verid"},
                          {52, nv_backup_version, 4, "kesta_verback"},
                          {61, nv_version0, 4, "kesta_ver0"},
                          {62, nv_version0 + 8, 4, "kesta_ver1"},
                          {63, nv_version0 + 16, 4, "kesta_ver2"},
                          {64, nv_version0 + 24, 4, "kesta_ver3"},
                          {55, 0, 4, "kesta_reboot"},
                          {201, 344, 16, "kesta_wwn"},
                          {202, 364, 16, "kesta_serialno"},
                          {203, 384, 20, "kesta_guid"}};

std::string padded(const std::string &text, std::size_t length)
{
    return text + std::string(length - text.size(), '\0');
}

}  // namespace

class Repair : public LibraryTest {
protected:
    Repair() { fill_sysback(); }

    // The slot names, and bytes of its own in each other item.
    static std::string value_of(const Item &item)
    {
        if (item.block == 31) {
            return padded("kesta_backup0", 32);
        }
        return item.block == 32 ? padded("kesta_backup1", 32)
                                : std::string(item.length, static_cast<char>('A' + item.block % 26));
    }
    static void fill_sysback()
    {
        for (const Item &item : all_items) {
            p().sysback[item.mirror] = {value_of(item)};
        }
    }
    static void fill_memory()
    {
        for (const Item &item : all_items) {
            if (item.offset != 0) {
                memcpy(p().nv.data() + item.offset, value_of(item).data(), item.length);
            }
        }
    }
    static std::string in_memory(const Item &item)
    {
        return {reinterpret_cast<const char *>(p().nv.data()) + item.offset, item.length};
    }
    int repair() { return kestal_repair_memory_sysback(nullptr, 0); }
};

TEST_F(Repair, BothSidesGoodNeedNone)
{
    fill_memory();
    EXPECT_EQ(repair(), 0);
    EXPECT_THAT(p().calls_of("nv_write"), IsEmpty());
    EXPECT_THAT(p().calls_of("sb_write"), IsEmpty());
    EXPECT_TRUE(p().traced(4, "[repair_memory_sysback] Repair No Need."));
    EXPECT_EQ(p().traces.front().text, "[repair_memory_sysback] START");
    EXPECT_EQ(p().traces.back(), (Trace{4, "[repair_memory_sysback] Memory & Sysback Repair End.",
                                        "../common/kestal_repair_memory_sysback.cpp"}));
}

TEST_F(Repair, EmptyMemoryIsFilledFromTheArea)
{
    EXPECT_EQ(repair(), 0);
    for (const Item &item : all_items) {
        if (item.offset != 0) {
            EXPECT_EQ(in_memory(item), value_of(item)) << item.block;
        }
    }
    EXPECT_TRUE(p().traced(1,
                           "[kestal_repair_memory_sysback] NonVolatile(Backup) ReadCheck ERROR "
                           "rtn=-1"));
    EXPECT_TRUE(p().traced(1,
                           "[kestal_repair_memory_sysback] NonVolatile(Accept) ReadCheck ERROR "
                           "rtn=-1"));
    EXPECT_TRUE(p().traced(4, "[repair_filename_check] filelen Error(0,14)"));
    EXPECT_THAT(p().calls_of("sb_write"), IsEmpty());
}

TEST_F(Repair, EmptyAreaIsFilledFromMemory)
{
    fill_memory();
    p().sysback.clear();
    EXPECT_EQ(repair(), 0);
    for (const Item &item : all_items) {
        EXPECT_EQ(p().sysback[item.mirror].bytes, item.offset != 0 ? value_of(item) : std::string(4, '\0'))
            << item.block;
    }
    EXPECT_TRUE(p().traced(1, "[kestal_repair_memory_sysback] SystemBackup(Backup) Read ERROR rtn=-1"));
    EXPECT_THAT(p().calls_of("nv_write"), IsEmpty());
}

TEST_F(Repair, OneBadNameMakesASideBad)
{
    fill_memory();
    p().set_text(nv_accept_name, "kesta_backup2", 32);
    EXPECT_EQ(repair(), 0);
    EXPECT_EQ(p().text_at(nv_accept_name, 32), "kesta_backup1");
    p().sysback["kesta_sysacpt"] = {padded("kesta_backupX", 32)};
    EXPECT_EQ(repair(), 0);
    EXPECT_EQ(p().sysback["kesta_sysacpt"].bytes, padded("kesta_backup1", 32));
}

TEST_F(Repair, BothSidesBadAreLeftAlone)
{
    p().sysback.clear();
    EXPECT_EQ(repair(), -1);
    EXPECT_TRUE(p().traced(1, "[repair_memory_sysback] Repair Non Done."));
    EXPECT_THAT(p().calls_of("nv_write"), IsEmpty());
    EXPECT_THAT(p().calls_of("sb_write"), IsEmpty());
}

TEST_F(Repair, FirstFailureEndsTheSequence)
{
    p().sysback.erase("kesta_ver1");
    EXPECT_EQ(repair(), -1);
    EXPECT_TRUE(p().traced(1, "[repair_rw] SysBack Write ERROR rtn=-1")) << "the label of a reading";
    EXPECT_TRUE(p().traced(1, "[repair_allitem] Repair Failed(Version #1). rtn=-1"));
    EXPECT_TRUE(p().traced(1, "[kestal_repair_memory_sysback] Repair Failed(Sysback->Memory)."));
    EXPECT_EQ(p().int_at(nv_version0 + 16), 0) << "those behind it are not copied";
    EXPECT_EQ(kestal_repair_allitem(1, nullptr, 0), 1);

    fill_sysback();
    fill_memory();
    p().sysback.erase("kesta_sysback");
    p().fail_kind("sb_write", 3);
    EXPECT_EQ(repair(), -1);
    EXPECT_TRUE(p().traced(1, "[repair_rw] SysBack Write ERROR rtn=-1"));
    EXPECT_TRUE(p().traced(1, "[kestal_repair_memory_sysback] Repair Failed(Memory->Sysback)."));
}

TEST_F(Repair, OneBlockEitherWay)
{
    fill_memory();
    p().sysback.clear();
    EXPECT_EQ(kestal_repair_rw(0, 51, 4), 0);
    EXPECT_EQ(p().sysback["kesta_verid"].bytes.size(), 4u);
    EXPECT_THAT(p().calls, ElementsAre("alloc 4", "nv_read 296 4", "sb_open kesta_verid w", "sb_write 4", "sb_close"));
    p().set_int(nv_numbering_version, 0);
    EXPECT_EQ(kestal_repair_rw(1, 51, 4), 0);
    EXPECT_NE(p().int_at(nv_numbering_version), 0);
    EXPECT_EQ(p().traces.back(), (Trace{5, "[repair_rw] END rtn=0", "../common/kestal_repair_rw.cpp"}));
    p().fail_kind("nv_read", 0, 5);
    EXPECT_EQ(kestal_repair_rw(0, 51, 4), -1);
    EXPECT_TRUE(p().traced(1, "[repair_rw] Memory Read ERROR rtn=-1"));
    p().fail_kind("nv_write", 0, 5);
    EXPECT_EQ(kestal_repair_rw(1, 51, 4), -1);
    EXPECT_TRUE(p().traced(1, "[repair_rw] Memory Write ERROR rtn=-1"));
    p().fail_kind("alloc", 0, 1);
    EXPECT_EQ(kestal_repair_rw(1, 51, 4), -1);
    EXPECT_TRUE(p().traced(1, "[repair_rw] MALLOC error. errno=12"));
    for (const int direction : {-1, 2}) {
        EXPECT_EQ(kestal_repair_rw(direction, 51, 4), -931);
    }
}

TEST_F(Repair, NoLengthIsRefusedByTheReading)
{
    fill_memory();
    for (const int direction : {0, 1}) {
        p().traces.clear();
        EXPECT_EQ(kestal_repair_rw(direction, 51, 0), -1);
        EXPECT_EQ(p().traces.back().text, "[repair_rw] END rtn=-1");
    }
    EXPECT_TRUE(p().traced(1, "[repair_rw] SysBack Write ERROR rtn=-1"));
    EXPECT_THAT(p().calls_of("nv_write"), IsEmpty());
    EXPECT_THAT(p().calls_of("sb_write"), IsEmpty());
}

TEST_F(Repair, EndOfTheItemsIsAlwaysTold)
{
    EXPECT_EQ(kestal_repair_allitem(1, nullptr, 0), 0);
    EXPECT_EQ(p().traces.back(), (Trace{4, "[repair_allitem] END", "../common/kestal_repair_memory_sysback.cpp"}));
    p().sysback.erase("kesta_ver1");
    EXPECT_EQ(kestal_repair_allitem(1, nullptr, 0), 1);
    EXPECT_EQ(p().traces.back().text, "[repair_allitem] END");
}

TEST_F(Repair, VersionsNeedAPlaceToGoTo)
{
    char version[4]{};
    EXPECT_EQ(kestal_repair_memory_from_sysback(nullptr, 0, nullptr, version), -931);
    EXPECT_EQ(kestal_repair_memory_from_sysback(nullptr, 0, version, nullptr), -931);
    EXPECT_THAT(p().calls, IsEmpty());
    EXPECT_EQ(p().texts(1), (std::vector<std::string>(2, "[repair_memory_from_sysback] Argument ERROR")));
    EXPECT_EQ(repair(), 0) << "still one after the other";
    EXPECT_FALSE(p().traced(4, "[repair_allitem] called from env_restore2."));
}

TEST_F(Repair, NamesAreCheckedOverTheirWholeLength)
{
    const std::pair<const char *, int> names[] = {{"kesta_backup0", 0},
                                                  {"kesta_backup1", 0},
                                                  {"kesta_backup2", -1},
                                                  {"KESTA_BACKUP0", -1}};
    for (const auto &[name, result] : names) {
        std::string text = name;
        EXPECT_EQ(kestal_repair_filename_check(text.data(), 13), result);
        EXPECT_TRUE(p().traced(4, "[repair_filename_check] filename=" + text + "(13)."));
    }
    EXPECT_TRUE(p().traced(4, "[repair_filename_check] check failed"));
    char longer[] = "kesta_backup0x";
    EXPECT_EQ(kestal_repair_filename_check(longer, 13), -1);
    EXPECT_TRUE(p().traced(4, "[repair_filename_check] filename=kesta_backup0x(13)."));
    for (const int length : {0, 12, 14, -1}) {
        EXPECT_EQ(kestal_repair_filename_check(longer, length), -1);
        EXPECT_TRUE(p().traced(4, "[repair_filename_check] filelen Error(" + std::to_string(length) + ",14)"));
    }
    EXPECT_EQ(kestal_repair_filename_check(nullptr, 13), -931);
}

// ------------------------------------------------------------------------ values that are supplied

class SuppliedRepair : public Repair {
protected:
    SuppliedRepair() { repair_state.with_supplied_values = 1; }
    ~SuppliedRepair() override
    {
        repair_state.with_supplied_values = 0;
        repair_state.records = nullptr;
        repair_state.record_count = 0;
        repair_state.backup_version = nullptr;
        repair_state.numbering_version = nullptr;
    }
    // Copies a block of the given length with these records.
    int copy(int block, std::size_t length, std::vector<KESTA_REPAIR_SYSVOL_DATA> records)
    {
        p().calls.clear();
        repair_state.records = records.data();
        repair_state.record_count = static_cast<int>(records.size());
        const int result = kestal_repair_rw(1, block, length);
        repair_state.records = nullptr;
        repair_state.record_count = 0;
        return result;
    }
    bool read_the_area() const { return !p().calls_of("sb_read").empty(); }

    std::string name0 = padded("kesta_backup0", 32);
    std::string name1 = padded("kesta_backup1", 32);
    std::string other = padded("something else", 32);
};

TEST_F(SuppliedRepair, RecordWithoutDataIsPassedOver)
{
    EXPECT_EQ(copy(32, 32, {{nullptr, 32}, {name1.data(), 32}}), 0);
    EXPECT_EQ(p().text_at(nv_accept_name, 32), "kesta_backup1");
    EXPECT_FALSE(read_the_area());
}

TEST_F(SuppliedRepair, RecordsAreTakenByTheirBlock)
{
    EXPECT_EQ(copy(31, 32, {{name0.data(), 201}, {name1.data(), 31}, {name0.data(), 31}}), 0);
    EXPECT_EQ(p().text_at(nv_backup_name, 32), "kesta_backup1") << "the first of its block";
    EXPECT_FALSE(read_the_area());
    for (const int block : {201, 202, 203}) {
        EXPECT_EQ(copy(block, 16, {{other.data(), block}}), 0);
        EXPECT_FALSE(read_the_area());
        EXPECT_EQ(p().text_at(344 + 20 * static_cast<std::size_t>(block - 201), 16), "something else");
    }
}

TEST_F(SuppliedRepair, WithoutARecordTheAreaIsRead)
{
    for (const int block : {31, 32, 201, 202, 203}) {
        EXPECT_EQ(copy(block, 16, {}), -1 + (block != 31 && block != 32 && block != 203)) << block;
        EXPECT_TRUE(p().traced(3, "[repair_rw] sysvol read for no-data (id=" + std::to_string(block) + ")"));
    }
    EXPECT_EQ(copy(31, 32, {{nullptr, 31}}), 0);
    EXPECT_TRUE(read_the_area()) << "a record without a value is none";
}

TEST_F(SuppliedRepair, AcceptNameIsTakenOrDerivedByWhicheverComesFirst)
{
    EXPECT_EQ(copy(32, 32, {{name0.data(), 32}, {name0.data(), 31}}), 0);
    EXPECT_EQ(p().text_at(nv_accept_name, 32), "kesta_backup0") << "taken";
    EXPECT_EQ(copy(32, 32, {{name0.data(), 31}, {name0.data(), 32}}), 0);
    EXPECT_EQ(p().text_at(nv_accept_name, 32), "kesta_backup1") << "the other one";
    EXPECT_EQ(copy(32, 32, {{name1.data(), 31}}), 0);
    EXPECT_EQ(p().text_at(nv_accept_name, 32), "kesta_backup0");
    EXPECT_FALSE(read_the_area());
    EXPECT_EQ(copy(32, 32, {{other.data(), 31}, {name0.data(), 32}}), 0);
    EXPECT_TRUE(p().traced(3, "[repair_rw] sysvol read for irrigal data(id=32)"));
    EXPECT_TRUE(read_the_area());
    EXPECT_EQ(p().text_at(nv_accept_name, 32), "kesta_backup1");
}

TEST_F(SuppliedRepair, VersionsComeFromTheFlashFile)
{
    write_file("/etc/kesta_sys/version", "41\n");
    for (int controller = 0; controller < 4; ++controller) {
        EXPECT_EQ(copy(61 + controller, 4, {}), 0);
        EXPECT_EQ(p().int_at(nv_version0 + 8 * static_cast<std::size_t>(controller)), 41);
        EXPECT_FALSE(read_the_area());
    }
    write_file("/etc/kesta_sys/version", "x\n");
    EXPECT_EQ(copy(61, 4, {}), 0);
    EXPECT_TRUE(p().traced(3, "[repair_rw] sysvol read for file read error.(id=61)"));
    EXPECT_TRUE(read_the_area());
}

TEST_F(SuppliedRepair, VersionsThatAreReadAreHandedBack)
{
    char verback[5] = "####";
    char verid[5] = "####";
    repair_state.backup_version = verback;
    repair_state.numbering_version = verid;
    EXPECT_EQ(copy(52, 4, {}), 0);
    EXPECT_STREQ(verback, std::string(4, 'A').c_str());
    EXPECT_STREQ(verid, "####");
    EXPECT_EQ(copy(51, 4, {}), 0);
    EXPECT_STREQ(verid, std::string(4, 'Z').c_str());
    EXPECT_EQ(copy(55, 4, {}), 0);
    EXPECT_TRUE(p().traced(5, "[repair_rw] sysvol read normal.(id=55)"));
    repair_state.backup_version = nullptr;
    EXPECT_EQ(copy(52, 4, {}), 0);
    EXPECT_EQ(copy(53, 4, {}), -1) << "no mirror";
    EXPECT_TRUE(p().traced(3, "[repair_rw] sysvol read (id=53)"));
}
