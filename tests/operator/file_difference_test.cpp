// What a comparison of archives and of this system's files tells.
#include "file_difference.h"

#include <gmock/gmock.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "environment_archive.h"
#include "private_root.h"
#include "tar_samples.h"
#include "test_platform.h"
#include "text_difference.h"

using namespace engine;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

constexpr const char *saved = "/opt/kesta_sys/bakup/.save.tar.Z";

class FileDifferenceTest : public testing::Test {
protected:
    FileDifferenceTest()
    {
        test::reset();
        test::clear_appliance_folders();
        fs::remove_all("/etc/app");
        fs::create_directories("/etc/app/more");
        test::write_file("/etc/app/one", "a\nb\nc\n");
        test::write_file("/etc/app/more/two", std::string("\0binary", 7));
        test::write_file("/etc/app/large", std::string(300000, 'x'));
        fs::create_symlink("one", "/etc/app/link");
        fs::create_hard_link("/etc/app/one", "/etc/app/second");
        strcpy(definition.groupname, "network");
        strcpy(definition.setfile[0].pathname, "/etc/app");
        make_archive(definition, saved, [] {});
        before = archive_of(saved);
    }

    static ComparedSide archive_of(const std::string &path)
    {
        return {"it", Archive{contents_of_bytes(test::read_file(path)), "It", {}}};
    }
    ComparedSide saved_again() const
    {
        make_archive(definition, saved, [] {});
        return archive_of(saved);
    }
    // "path what,what"
    std::vector<std::string> told(const ComparedSide &from, const ComparedSide &to)
    {
        found = differences(from, to, definition);
        std::vector<std::string> lines;
        for (const FileDifference &one : found) {
            std::string what;
            for (const std::string &word : one.what) {
                what += (what.empty() ? "" : ",") + word;
            }
            lines.push_back(one.path + " " + what);
        }
        return lines;
    }
    static void change_everything()
    {
        test::write_file("/etc/app/one", "a\nB\nc\n");
        test::write_file("/etc/app/more/two", std::string("\0BINARY", 7));
        test::write_file("/etc/app/large", std::string(299999, 'x') + "y");
        fs::remove("/etc/app/link");
        fs::create_symlink("more", "/etc/app/link");
        fs::remove("/etc/app/second");
        test::write_file("/etc/app/new", "n");
        EXPECT_EQ(chmod("/etc/app/more", 0700), 0);
    }

    KESTA_BACKUP_FILE definition{};
    ComparedSide before;
    std::vector<FileDifference> found;
};

}  // namespace

TEST_F(FileDifferenceTest, WhatWasSavedIsTheSame)
{
    EXPECT_THAT(told(before, {"live"}), IsEmpty());
    EXPECT_THAT(told(before, saved_again()), IsEmpty());
}

TEST_F(FileDifferenceTest, EachKindOfChangeIsToldFromBothSides)
{
    change_everything();
    const auto all =
        ElementsAre("/etc/app/large contents", "/etc/app/link link", "/etc/app/more mode", "/etc/app/more/two contents",
                    "/etc/app/new added", "/etc/app/one contents", "/etc/app/second removed");
    EXPECT_THAT(told(before, {"live"}), all);
    EXPECT_EQ(found[5].text, "@@ -1,3 +1,3 @@\n a\n-b\n+B\n c\n");
    EXPECT_EQ(found[3].text, "") << "it is no text";
    EXPECT_NE(found[3].from->sha256, found[3].to->sha256);
    EXPECT_EQ(found[0].from->sha256.size(), 64U);
    EXPECT_EQ(found[1].to->target, "more");
    const ComparedSide after = saved_again();
    EXPECT_THAT(told(before, after), all);
    EXPECT_EQ(found[5].text, "@@ -1,3 +1,3 @@\n a\n-b\n+B\n c\n");
    EXPECT_THAT(told({"live"}, before), testing::Contains("/etc/app/new removed"));
    EXPECT_EQ(found[5].text, "@@ -1,3 +1,3 @@\n a\n-B\n+b\n c\n");
    EXPECT_THAT(told({"live"}, after), IsEmpty());
}

TEST_F(FileDifferenceTest, AFileThatGrewBeyondAllMeasureIsNotRead)
{
    ASSERT_EQ(truncate("/etc/app/large", off_t{1} << 40), 0);
    EXPECT_THAT(told(before, {"live"}), ElementsAre("/etc/app/large contents"));
    EXPECT_EQ(found[0].to->sha256, "");
    EXPECT_EQ(found[0].to->size, std::uint64_t{1} << 40);
}

TEST_F(FileDifferenceTest, OwnersAreToldByName)
{
    ASSERT_EQ(chown("/etc/app/large", 0, 7), 0);
    EXPECT_THAT(told(before, {"live"}), ElementsAre("/etc/app/large group"));
}

TEST_F(FileDifferenceTest, ADamagedSideIsNoAnswer)
{
    for (const bool second : {false, true}) {
        const ComparedSide bad{"bad",
                               Archive{contents_of_bytes(test::with_flipped_byte(test::read_file(saved))), "It", {}}};
        try {
            (void)(second ? differences(before, bad, definition) : differences(bad, {"live"}, definition));
            ADD_FAILURE() << "it was compared";
        } catch (const Failure &failure) {
            EXPECT_EQ(failure.exit(), Exit::platform) << failure.what();
        }
    }
}

TEST_F(FileDifferenceTest, NamesThatLeadOutAreNamedAndNotFollowed)
{
    strcpy(definition.setfile[0].pathname, "/etc/app");
    const ComparedSide hostile{
        "hostile", Archive{contents_of_bytes(test::bzip2(test::tar_of("etc/app/../../secret", "x"))), "It", {}}};
    (void)told(hostile, {"live"});
    const auto bad =
        std::find_if(found.begin(), found.end(), [](const FileDifference &one) { return !one.problem.empty(); });
    ASSERT_NE(bad, found.end());
    EXPECT_THAT(bad->problem, testing::HasSubstr("not below the root"));
}

TEST_F(FileDifferenceTest, AWayThroughSomebodysLinkIsNotFollowed)
{
    fs::remove_all("/etc/app/more");
    fs::create_directories("/tmp/elsewhere");
    test::write_file("/tmp/elsewhere/two", std::string("\0binary", 7));
    fs::create_directory_symlink("/tmp/elsewhere", "/etc/app/more");
    EXPECT_THAT(told(before, {"live"}), ElementsAre("/etc/app/more kind", "/etc/app/more/two problem"));
}

TEST(TextDifference, HunksAreThoseOfAUnifiedDifference)
{
    EXPECT_EQ(unified_difference("same\n", "same\n"), "");
    EXPECT_EQ(unified_difference("", "a\n"), "@@ -0,0 +1 @@\n+a\n");
    EXPECT_EQ(unified_difference("a", "a\n"), "@@ -1 +1 @@\n-a\n\\ No newline at end of file\n+a\n");
    std::string many;
    for (char line = 'a'; line <= 'z'; ++line) {
        many += std::string(1, line) + "\n";
    }
    std::string changed = many;
    changed.replace(changed.find("c\n"), 2, "C\n");
    changed.replace(changed.find("x\n"), 2, "");
    EXPECT_EQ(unified_difference(many, changed),
              "@@ -1,6 +1,6 @@\n a\n b\n-c\n+C\n d\n e\n f\n"
              "@@ -21,6 +21,5 @@\n u\n v\n w\n-x\n y\n z\n");
}

TEST(TextDifference, TextsWithNothingInCommonAreShownWhole)
{
    std::string one;
    std::string other;
    for (int i = 0; i < 3000; ++i) {
        one += "a" + std::to_string(i) + "\n";
        other += "b" + std::to_string(i) + "\n";
    }
    const std::string difference = unified_difference(one, other);
    EXPECT_EQ(difference.substr(0, 22), "@@ -1,3000 +1,3000 @@\n");
    EXPECT_EQ(std::count(difference.begin(), difference.end(), '\n'), 6001);
    EXPECT_FALSE(is_compared_text(std::string(longest_compared_text + 1, 'a')));
    EXPECT_FALSE(is_compared_text(std::string(1, '\0')));
}
