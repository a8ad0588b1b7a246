// The table of NV items, as programs get it, and what it has in common with block access.
#include <string.h>

#include <map>
#include <set>

#include "library_test.h"

using namespace test;

namespace {

std::vector<KESTA_NV_ITEM> items()
{
    unsigned int count = 0;
    const KESTA_NV_ITEM *const first = kesta_nv_items(&count);
    return {first, first + count};
}

KESTA_NV_ITEM item(int block_id)
{
    for (const KESTA_NV_ITEM &one : items()) {
        if (one.block_id == block_id) {
            return one;
        }
    }
    ADD_FAILURE() << "no item " << block_id;
    return {};
}

}  // namespace

class NvItems : public LibraryTest {};

TEST_F(NvItems, AreAllThereByAscendingBlockId)
{
    const std::vector<int> expected{1,  2,  3,  4,  11, 12, 13, 14, 21, 31, 32, 33,  41,  42,  43,  44,  51,  52,
                                    53, 54, 55, 61, 62, 63, 64, 71, 72, 73, 74, 101, 102, 103, 104, 201, 202, 203};
    std::vector<int> found;
    std::set<std::string> names;
    for (const KESTA_NV_ITEM &one : items()) {
        found.push_back(one.block_id);
        names.insert(one.name);
    }
    EXPECT_EQ(found, expected);
    EXPECT_EQ(names.size(), expected.size()) << "each has a name of its own";
    EXPECT_TRUE(p().traces.empty()) << "looking logs nothing";
}

TEST_F(NvItems, CountMayBeLeftOutAndTheTableStays)
{
    unsigned int count = 0;
    EXPECT_EQ(kesta_nv_items(nullptr), kesta_nv_items(&count));
    EXPECT_EQ(count, 36u);
}

TEST_F(NvItems, TellEachFieldOfTheImage)
{
    const KESTA_NV_ITEM version = item(63);
    EXPECT_STREQ(version.name, "version-cnt2");
    EXPECT_EQ(version.kind, KESTA_NV_KIND_VERSION);
    EXPECT_EQ(version.id_type, KESTA_IDTYPE_VERSION);
    EXPECT_EQ(version.controller, 2);
    EXPECT_EQ(version.version_area, KESTA_VER_AREA_CURRENT);
    EXPECT_EQ(version.offset, 328);
    EXPECT_EQ(version.size, 4u);
    EXPECT_STREQ(version.mirror, "kesta_ver2");
    EXPECT_EQ(version.mirror_size, 4u);

    const KESTA_NV_ITEM group = item(21);
    EXPECT_EQ(group.kind, KESTA_NV_KIND_GROUP_NAME);
    EXPECT_EQ(group.controller, -1);
    EXPECT_EQ(group.version_area, 0);
    EXPECT_EQ(group.offset, 56);
    EXPECT_EQ(group.size, 16u);
    EXPECT_EQ(group.mirror, nullptr);
    EXPECT_EQ(group.mirror_size, 0u);
}

TEST_F(NvItems, RebootVersionHasNoPlaceInMemory)
{
    EXPECT_EQ(item(55).offset, -1);
    EXPECT_STREQ(item(55).mirror, "kesta_reboot");
    EXPECT_EQ(item(55).version_area, KESTA_VER_AREA_REBOOT);
}

TEST_F(NvItems, IdentityHasItsValueInSixteenBytesAndTheGuidIsRepairedWhole)
{
    for (const int block : {201, 202, 203}) {
        EXPECT_EQ(item(block).size, 20u) << block;
        EXPECT_EQ(item(block).value_size, 16u) << block;
        EXPECT_EQ(item(block).mirror_size, block == 203 ? 20u : 16u) << block;
    }
    EXPECT_EQ(item(203).kind, KESTA_NV_KIND_BYTES);
    EXPECT_EQ(item(201).kind, KESTA_NV_KIND_TEXT);
}

// Written through block access, each item stands where the table says, and nowhere else.
TEST_F(NvItems, BlockAccessWritesThemWhereTheTableSays)
{
    for (const KESTA_NV_ITEM &one : items()) {
        reset();
        std::string value(one.size, 'x');
        ASSERT_EQ(kestal_non_volatile_rw_func(one.block_id, KESTA_BLOCK_WRITE, value.data(), one.size, nullptr), 0)
            << one.name;
        const std::string image(reinterpret_cast<const char *>(p().nv.data()), p().nv.size());
        std::string expected(image.size(), '\0');
        if (one.offset >= 0) {
            expected.replace(static_cast<std::size_t>(one.offset), one.size, value);
        }
        EXPECT_TRUE(image == expected) << one.name;
        EXPECT_EQ(p().sysback.size(), one.mirror ? 1u : 0u) << one.name;
        if (one.mirror) {
            EXPECT_EQ(p().sysback[one.mirror].bytes, value);
        }
    }
}

TEST_F(NvItems, EveryControllersItemIsFoundByItsType)
{
    int found = 0;
    for (const KESTA_NV_ITEM &one : items()) {
        if (one.id_type != 0) {
            int block_id = 0;
            EXPECT_EQ(kestal_get_block_id(one.id_type, one.controller, &block_id), 0);
            EXPECT_EQ(block_id, one.block_id);
            ++found;
        }
    }
    EXPECT_EQ(found, 24);
}

TEST_F(NvItems, EveryVersionAreaIsFoundByItsNumber)
{
    for (const KESTA_NV_ITEM &one : items()) {
        if (one.version_area != 0) {
            reset();
            const int controller = one.controller < 0 ? 0 : one.controller;
            EXPECT_EQ(kestal_set_version_nolock(one.version_area, controller, 77), 0) << one.name;
            if (one.offset >= 0) {
                EXPECT_EQ(p().int_at(static_cast<std::size_t>(one.offset)), 77) << one.name;
            }
        }
    }
}
