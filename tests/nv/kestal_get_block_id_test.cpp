#include "block_map.h"
#include "library_test.h"

using namespace test;

class BlockId : public LibraryTest {};

TEST_F(BlockId, EveryTypeAndControllerHasItsBlock)
{
    const int expected[6][4] = {{1, 2, 3, 4},     {11, 12, 13, 14}, {41, 42, 43, 44},
                                {61, 62, 63, 64}, {71, 72, 73, 74}, {101, 102, 103, 104}};
    for (int type = 1; type <= 6; ++type) {
        for (int controller = 0; controller < 4; ++controller) {
            int block = -1;
            EXPECT_EQ(kestal_get_block_id(type, controller, &block), 0);
            EXPECT_EQ(block, expected[type - 1][controller]);
        }
    }
    EXPECT_TRUE(p().traces.empty()) << "nothing is logged on success";
}

TEST_F(BlockId, ControllerNumberIsCheckedBeforeThePointer)
{
    EXPECT_EQ(kestal_get_block_id(4, 4, nullptr), -931);
    EXPECT_EQ(kestal_get_block_id(4, -1, nullptr), -931);
    EXPECT_EQ(p().texts(1), (std::vector<std::string>{"[kestal_get_block_id] Argument Error.(cnt_num=4).",
                                                      "[kestal_get_block_id] Argument Error.(cnt_num=-1)."}));
}

TEST_F(BlockId, PointerIsCheckedBeforeTheType)
{
    EXPECT_EQ(kestal_get_block_id(0, 0, nullptr), -931);
    EXPECT_EQ(p().texts(1), std::vector<std::string>{"[kestal_get_block_id] Argument Error.(block_id=NULL)."});
}

TEST_F(BlockId, UnknownTypeLeavesTheOutputAsItWas)
{
    for (const int type : {0, 7, -1}) {
        int block = 12345;
        EXPECT_EQ(kestal_get_block_id(type, 0, &block), -931);
        EXPECT_EQ(block, 12345);
        EXPECT_TRUE(p().traced(1, "[kestal_get_block_id] Argument Error.(id_type=" + std::to_string(type) + ")."));
    }
}

TEST_F(BlockId, TracesNameTheSourceTheSameWayEverywhere)
{
    kestal_get_block_id(0, 0, nullptr);
    EXPECT_EQ(p().traces.at(0).file, "../common/kestal_get_block_id.cpp");
}

TEST(BlockMap, RowsStandInTheStoredOrder)
{
    const int order[] = {104, 103, 102, 101, 74, 64, 73, 63, 72, 62, 71, 61, 54, 53, 52,  51,  44, 43,
                         42,  41,  33,  32,  31, 21, 14, 13, 12, 11, 4,  3,  2,  1,  201, 202, 203};
    const int offsets[] = {648, 632, 616, 600, 340, 336, 332, 328, 324, 320, 316, 312, 308, 304, 300, 296, 272, 248,
                           224, 200, 136, 104, 72,  56,  52,  48,  44,  40,  36,  32,  28,  24,  344, 364, 384};
    ASSERT_EQ(kesta::block_id2offset.size(), 35u);
    for (std::size_t i = 0; i < 35; ++i) {
        EXPECT_EQ(kesta::block_id2offset[i].block_id, order[i]);
        EXPECT_EQ(kesta::block_id2offset[i].offset, offsets[i]);
    }
}

TEST(BlockMap, TwelveBlocksAreMirroredUnderTheirNames)
{
    const std::pair<int, const char *> names[] = {{51, "kesta_verid"},   {52, "kesta_verback"},   {61, "kesta_ver0"},
                                                  {62, "kesta_ver1"},    {63, "kesta_ver2"},      {64, "kesta_ver3"},
                                                  {31, "kesta_sysback"}, {32, "kesta_sysacpt"},   {201, "kesta_wwn"},
                                                  {55, "kesta_reboot"},  {202, "kesta_serialno"}, {203, "kesta_guid"}};
    ASSERT_EQ(kesta::block_id2sysbak_name.size(), 12u);
    for (std::size_t i = 0; i < 12; ++i) {
        EXPECT_EQ(kesta::block_id2sysbak_name[i].block_id, names[i].first);
        EXPECT_STREQ(kesta::block_id2sysbak_name[i].sysbakname, names[i].second);
    }
}

TEST(BlockMap, RebootVersionLivesInTheSystemBackupAreaOnly)
{
    EXPECT_EQ(kesta::find_block(kesta::block_id2offset, 55), nullptr);
    EXPECT_NE(kesta::find_block(kesta::block_id2sysbak_name, 55), nullptr);
}

TEST(BlockMap, UnmirroredBlocksHaveNoName)
{
    for (const int id :
         {1, 2, 3, 4, 11, 12, 13, 14, 21, 33, 41, 42, 43, 44, 53, 54, 71, 72, 73, 74, 101, 102, 103, 104}) {
        EXPECT_NE(kesta::find_block(kesta::block_id2offset, id), nullptr) << id;
        EXPECT_EQ(kesta::find_block(kesta::block_id2sysbak_name, id), nullptr) << id;
    }
}

TEST(BlockMap, NothingAddressesTheHeaderOrTheFiller)
{
    for (const kesta::BlockRow &row : kesta::block_id2offset) {
        EXPECT_TRUE((row.offset >= 24 && row.offset < 404) || (row.offset >= 600 && row.offset < 664)) << row.block_id;
    }
}
