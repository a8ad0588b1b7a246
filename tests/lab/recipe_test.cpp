// What a platform tells the lab that its controllers need.
#include "recipe.h"

#include "library_test.h"
#include "private_namespace.h"

using namespace test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

const std::string file = "/tmp/some.recipe";

lab::Recipe recipe_of(const std::string &text)
{
    write_file(file, text);
    return lab::read_recipe(file);
}

std::string refusal_of(const std::string &text)
{
    try {
        recipe_of(text);
    } catch (const lab::Error &error) {
        return error.what();
    }
    return "";
}

}  // namespace

class Recipe : public LibraryTest {};

TEST_F(Recipe, HasProgramsFoldersAndFilesWithTheirLines)
{
    const lab::Recipe recipe = recipe_of(
        "# a platform\nsbin cpinfo\nproduct tool\nproduct other tool\n\n"
        "shared-folder nv\nshared-file status\n| a = 1\n|\n| b = 2\n"
        "own-folder boot\nown-file etc/a.conf\n| n = @NUMBER@\nown-file etc/empty\n");
    EXPECT_THAT(recipe.sbin_programs, ElementsAre("cpinfo"));
    EXPECT_THAT(recipe.product_programs, ElementsAre("tool", "other tool"));
    EXPECT_THAT(recipe.shared_folders, ElementsAre("nv"));
    EXPECT_THAT(recipe.own_folders, ElementsAre("boot"));
    ASSERT_EQ(recipe.shared_files.size(), 1u);
    EXPECT_EQ(recipe.shared_files[0].path, "status");
    EXPECT_EQ(recipe.shared_files[0].text, "a = 1\n\nb = 2\n");
    ASSERT_EQ(recipe.own_files.size(), 2u);
    EXPECT_EQ(recipe.own_files[0].text, "n = @NUMBER@\n");
    EXPECT_THAT(recipe.own_files[1].text, IsEmpty());
}

TEST_F(Recipe, RefusesWhatItDoesNotUnderstandWithItsLine)
{
    EXPECT_EQ(refusal_of("sbin a\nprogram b\n"), file + ":2: 'program' is nothing that a recipe says");
    EXPECT_EQ(refusal_of("| text\n"), file + ":1: a line of no file");
    EXPECT_EQ(refusal_of("own-file a\n\n| text\n"), file + ":3: a line of no file");
    EXPECT_THAT(refusal_of("sbin\n"), HasSubstr("is no path below a folder"));
    EXPECT_THROW(lab::read_recipe("/tmp/no.recipe"), lab::Error);
}

TEST_F(Recipe, LeadsNowhereButBelowTheLab)
{
    for (const char *path : {"/etc/passwd", "../up", "a/../../up", ".."}) {
        EXPECT_THAT(refusal_of(std::string("own-file ") + path + "\n"), HasSubstr("is no path below a folder")) << path;
    }
}

TEST_F(Recipe, VariablesAreFilledInAndUnknownOnesRefused)
{
    const lab::Variables variables{{"NUMBER", "2"}, {"SHARED", "/shared"}};
    EXPECT_EQ(lab::filled_in("n = @NUMBER@\nd = @SHARED@/nv@NUMBER@", variables), "n = 2\nd = /shared/nv2");
    EXPECT_EQ(lab::filled_in("", variables), "");
    for (const char *text : {"@OTHER@", "a@b", "@NUMBER@@", "@@"}) {
        EXPECT_THROW(lab::filled_in(text, variables), lab::Error) << text;
    }
}

TEST_F(Recipe, OfEachPlatformCanBeRead)
{
    const std::filesystem::path folder = std::filesystem::path(KESTA_SOURCE_DIR) / "platform";
    int recipes = 0;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(folder)) {
        if (entry.path().extension() == ".recipe") {
            EXPECT_NO_THROW(lab::read_recipe(entry.path())) << entry.path();
            ++recipes;
        }
    }
    EXPECT_GE(recipes, 1);
}
