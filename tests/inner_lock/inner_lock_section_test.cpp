#include "inner_lock_section.h"

#include <functional>
#include <vector>

#include "library_test.h"

namespace {

using test::LibraryTest;

constexpr kesta::InnerLockTexts texts{"no lock, rtn=", ".", "not given back, rtn=", "!"};

class InnerLockSection : public LibraryTest {};

TEST_F(InnerLockSection, IsReleasedOnAPathThatForgot)
{
    {
        kesta::InnerLockSection lock("tag", texts);
        EXPECT_EQ(lock.acquire(1), 0);
        EXPECT_FALSE(inner_lock_is_free());
    }
    EXPECT_TRUE(inner_lock_is_free());
    EXPECT_TRUE(p().texts(1).empty());
}

TEST_F(InnerLockSection, TracesWhatFailed)
{
    kesta::InnerLockSection lock("tag", texts, "../common/operation.cpp", 17);
    EXPECT_EQ(lock.acquire(4), -931);
    EXPECT_TRUE(p().traced(1, "[tag] no lock, rtn=-931."));
    EXPECT_EQ(lock.acquire(1), 0);
    p().fail_kind("nv_write", 0, 5);
    EXPECT_EQ(lock.release(), -172);
    EXPECT_TRUE(p().traced(1, "[tag] not given back, rtn=-172!"));
    EXPECT_EQ(p().traces.back().file, "../common/operation.cpp");
}

// Who searches a log for an operation's source finds its sections too.
TEST_F(InnerLockSection, TracesInTheSourceOfTheOperation)
{
    struct Row {
        std::string source;
        std::function<void()> call;
    };
    char name[64] = "name";
    int flag = 0;
    const std::vector<Row> rows{
        {"kestal_area_file_rw",
         [&] {
             kestal_area_file_rw(1, name, nullptr);
         }},
        {"kestal_change_address",
         [&] {
             kestal_change_address(name, name, 0);
         }},
        {"kestal_set_group_name_file",
         [&] {
             kestal_set_group_name_file(name);
         }},
        {"kestal_cmd_lockinfo",
         [&] {
             kestal_read_cmd_lockinfo(KESTA_BLOCK_LOCK_CNT0, name, 24, 0);
         }},
        {"kestal_sync_nonvolatile",
         [&] {
             kestal_flag_of_sync_nonvolatile(0x101, &flag, &flag, 0);
         }},
        {"kestal_version",
         [&] {
             kestal_read_version(KESTA_VER_AREA_BACKUP, 0, KESTA_VERSION_BY_MODE);
         }},
    };
    for (const Row &row : rows) {
        p().fail_kind("nv_read");
        p().traces.clear();
        row.call();
        int told = 0;
        for (const test::Trace &trace : p().traces) {
            const bool of_section = trace.level == 1 && trace.file == "../common/" + row.source + ".cpp";
            told += of_section && trace.text.find("Lock") != std::string::npos ? 1 : 0;
        }
        EXPECT_EQ(told, 1) << row.source;
    }
}

}  // namespace
