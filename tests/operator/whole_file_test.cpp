// Files that are read and replaced whole.
#include "whole_file.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "failure.h"
#include "private_root.h"

using namespace engine;

TEST(WholeFile, IsAbsentOnlyWhereItsNameIsSeenToBeMissing)
{
    const std::string folder = "/var/run/kesta_sys/tmp/";
    test::write_file(folder + "file", "text");
    ASSERT_EQ(symlink("nowhere", (folder + "link").c_str()), 0);
    EXPECT_TRUE(is_absent(folder + "none"));
    EXPECT_TRUE(is_absent(folder + "none/below"));
    EXPECT_FALSE(is_absent(folder + "file"));
    EXPECT_FALSE(is_absent(folder + "link")) << "its name is taken";
    EXPECT_THROW((void)is_absent(folder + "file/below"), Failure) << "what is there can't be told";
    EXPECT_THROW((void)is_absent(folder + std::string(300, 'x')), Failure);
    EXPECT_EQ(unlink((folder + "link").c_str()), 0);
}

TEST(WholeFile, SettingsThatCanNotBeReadAreNotTakenForNone)
{
    const std::string folder = "/var/run/kesta_sys/tmp/";
    EXPECT_EQ(read_settings(folder + "none"), "");
    EXPECT_EQ(read_settings(folder + "none/below"), "");
    test::write_file(folder + "settings", "text");
    EXPECT_EQ(read_settings(folder + "settings"), "text");
    ASSERT_EQ(symlink("settings", (folder + "link").c_str()), 0);
    EXPECT_EQ(read_settings(folder + "link"), "text") << "as root has put it";
    ASSERT_EQ(symlink("round", (folder + "round").c_str()), 0);
    EXPECT_THROW((void)read_settings(folder + "round"), Failure);
    EXPECT_THROW((void)read_settings(folder + "settings/below"), Failure);
    EXPECT_THROW((void)read_settings("/proc/self/mem"), Failure) << "its bytes can't be read";
    EXPECT_EQ(unlink((folder + "link").c_str()), 0);
    EXPECT_EQ(unlink((folder + "round").c_str()), 0);
}
