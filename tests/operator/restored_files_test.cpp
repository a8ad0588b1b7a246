// How often an archive is unpacked for a restore and for a save, and that nothing is missed by unpacking it once.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "archive_evidence.h"
#include "environment_archive.h"
#include "placed_files.h"
#include "private_root.h"
#include "restored_group.h"
#include "tar_samples.h"

using namespace engine;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

using RestoredFilesTest = RestoredGroup;

}  // namespace

TEST_F(RestoredFilesTest, WhatChangesNothingUnpacksOnce)
{
    choose();
    EXPECT_TRUE(compare().none());
    EXPECT_TRUE(compare().none()) << "after the scripts";
    restore();
    EXPECT_EQ(times_read, 1);
}

TEST_F(RestoredFilesTest, AMissingFileIsUnpackedOnceMore)
{
    fs::remove("/etc/app/one");
    choose();
    EXPECT_THAT(compare().replaced, ElementsAre("/etc/app/one"));
    EXPECT_EQ(times_read, 1);
    restore();
    EXPECT_EQ(times_read, 2);
    EXPECT_EQ(test::read_file("/etc/app/one"), std::string(300000, 'o'));
    choose();
    EXPECT_TRUE(compare().none());
}

TEST_F(RestoredFilesTest, WhatChangedSinceItWasComparedIsComparedAgain)
{
    choose();
    EXPECT_TRUE(compare().none());
    std::string changed(300000, 'o');
    changed[150000] = 'x';
    struct stat before {};
    ASSERT_EQ(stat("/etc/app/one", &before), 0);
    test::write_file("/etc/app/one", changed);
    const timespec times[2] = {before.st_mtim, before.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, "/etc/app/one", times, 0), 0) << "somebody gives it its old time";
    EXPECT_THAT(compare().replaced, ElementsAre("/etc/app/one"));
    EXPECT_EQ(times_read, 2);
    restore();
    EXPECT_EQ(test::read_file("/etc/app/one"), std::string(300000, 'o'));
}

TEST_F(RestoredFilesTest, WhatIsExchangedForTheSameIsComparedAgain)
{
    choose();
    fs::copy_file("/etc/app/one", "/etc/app/.copy");
    fs::rename("/etc/app/.copy", "/etc/app/one");
    EXPECT_TRUE(compare().none() || compare().replaced.empty());
    EXPECT_GT(times_read, 1);
}

TEST_F(RestoredFilesTest, WhatDiffersIsFoundWhereverItDiffers)
{
    for (const std::size_t at : {std::size_t{0}, std::size_t{65535}, std::size_t{65536}, std::size_t{299999}}) {
        std::string changed(300000, 't');
        changed[at] = 'x';
        test::write_file("/etc/app/two", changed);
        let_files_settle();
        choose();
        EXPECT_THAT(compare().replaced, ElementsAre("/etc/app/two")) << at;
    }
    test::write_file("/etc/app/two", std::string(299999, 't'));
    choose();
    EXPECT_THAT(compare().replaced, ElementsAre("/etc/app/two"));
    test::write_file("/etc/app/two", std::string(300001, 't'));
    choose();
    EXPECT_THAT(compare().replaced, ElementsAre("/etc/app/two"));
}

// The only name that is asked for is a second one, and the archive has the contents under the first.
TEST_F(RestoredFilesTest, ASecondNameAloneIsComparedToo)
{
    fs::create_hard_link("/etc/app/more/three", "/etc/app/second");
    make_archive(definition, path, [] {});
    archive.contents = contents_of_path(path);
    const GroupPaths only(definition, "/etc/app/second");
    files = choose_files(archive, definition, only);
    EXPECT_THAT(compare_files(archive, files, GroupPlaces(only)).replaced, IsEmpty());
    fs::remove("/etc/app/second");
    test::write_file("/etc/app/second", std::string(300000, 'x'));
    files = choose_files(archive, definition, only);
    EXPECT_THAT(compare_files(archive, files, GroupPlaces(only)).replaced, ElementsAre("/etc/app/second"));
}

TEST_F(RestoredFilesTest, DamageBehindTheLastFileIsFoundBeforeAnythingIsTaken)
{
    const std::string whole = test::read_file(path);
    fs::remove("/etc/app/one");
    for (const std::string &bytes : {whole + "x", whole + std::string(1, '\0'), whole.substr(0, whole.size() - 1),
                                     test::with_flipped_byte(whole), std::string()}) {
        archive.contents = contents_of_bytes(bytes);
        EXPECT_THROW(choose(), DamagedArchive) << bytes.size();
    }
    EXPECT_FALSE(fs::exists("/etc/app/one"));
}

// Before its checksum is met, a damaged archive may seem to hold any name: it is told as damaged all the same.
TEST_F(RestoredFilesTest, WhereverAByteIsDamagedTheDamageIsTold)
{
    const std::string whole = test::read_file(path);
    int damaged = 0;
    for (std::size_t at = 0; at < whole.size(); ++at) {
        for (const int bit : {1, 16, 64}) {
            std::string bytes = whole;
            bytes[at] = static_cast<char>(bytes[at] ^ bit);
            if (evidence_of_bytes(bytes).state == CopyState::damaged) {
                ++damaged;
                archive.contents = contents_of_bytes(bytes);
                EXPECT_THROW(choose(), DamagedArchive) << "byte " << at << ", bit " << bit;
            }
        }
    }
    EXPECT_GT(damaged, 500);
}

TEST_F(RestoredFilesTest, NoStagedFileIsLeftWhereOneCannotBeWritten)
{
    fs::remove("/etc/app/one");
    choose();
    compare();
    archive.contents = contents_of_bytes("not what was chosen from");
    EXPECT_THROW(stage_files(archive, files, changes, GroupPlaces(paths)), Failure);
    EXPECT_FALSE(fs::exists("/etc/app/.one.kesta-new"));
}
