// A restore that unpacks its archive once: what is kept of it meanwhile, and what happens where there is no room for it.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "private_root.h"
#include "restored_group.h"
#include "tar_samples.h"
#include "test_platform.h"

using namespace engine;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

constexpr const char *folder = "/opt/kesta_sys/spool";
constexpr const char *one = "/etc/app/one";
constexpr std::uint64_t little = 4096;  // so that nearly all goes to the file

class KeptContentsTest : public RestoredGroup {
protected:
    KeptContentsTest() { fs::create_directories(folder); }

    void keep(const SpoolRule &rule = {.folder = folder, .in_memory = little},
              std::size_t pieces = KeptContents::most_pieces)
    {
        times_read = 0;
        files = choose_files(archive, definition, paths, KeptContents(rule, pieces));
        compare();
    }
    void remove_all()
    {
        fs::remove_all("/etc/app");
        fs::create_directories("/etc/app/more");
    }
    void expect_the_files_of_the_archive()
    {
        for (const char *name : {one, "/etc/app/two", "/etc/app/more/three"}) {
            EXPECT_EQ(test::read_file(name), std::string(300000, name[9])) << name;
        }
        files = choose_files(archive, definition, paths);
        EXPECT_TRUE(compare().none());
    }
    // Where the file without a name can be reached nevertheless; empty if there is none.
    static std::string spool_file()
    {
        for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            if (fs::read_symlink(entry, gone).string().starts_with(std::string(folder) + "/")) {
                return entry.path();
            }
        }
        return "";
    }
    void expect_nothing_staged()
    {
        for (const auto &entry : fs::recursive_directory_iterator("/etc/app")) {
            EXPECT_FALSE(entry.path().string().ends_with(".kesta-new")) << entry.path();
        }
    }
};

}  // namespace

TEST_F(KeptContentsTest, AChangedFileIsRestoredFromOneUnpacking)
{
    for (const std::size_t at : {std::size_t{0}, std::size_t{150000}, std::size_t{299999}}) {
        for (const std::uint64_t in_memory : {little, std::uint64_t{1} << 20}) {
            std::string changed(300000, 'o');
            changed[at] = 'x';
            test::write_file(one, changed);
            let_files_settle();
            keep({.folder = folder, .in_memory = in_memory});
            EXPECT_THAT(changes.replaced, ElementsAre(one));
            EXPECT_EQ(spool_file().empty(), in_memory > little) << "what is little needs no file";
            restore();
            EXPECT_EQ(times_read, 1);
            expect_the_files_of_the_archive();
        }
    }
}

TEST_F(KeptContentsTest, AllNewFilesAreRestoredFromOneUnpackingAndTheRoomIsGivenBack)
{
    remove_all();
    keep();
    EXPECT_GT(fs::file_size(spool_file()), 800000);
    EXPECT_TRUE(fs::is_empty(folder)) << "it has no name that could be left behind";
    restore();
    EXPECT_EQ(times_read, 1);
    EXPECT_EQ(fs::file_size(spool_file()), 0) << "the new files may need it";
    expect_the_files_of_the_archive();
    EXPECT_EQ(spool_file(), "");
}

TEST_F(KeptContentsTest, OfWhatIsHereNothingIsKept)
{
    keep();
    EXPECT_TRUE(changes.none());
    EXPECT_EQ(fs::file_size(spool_file()), 0);
    keep({.folder = folder});
    EXPECT_EQ(spool_file(), "");
}

TEST_F(KeptContentsTest, HolesAreRestoredAsHoles)
{
    const std::map<std::size_t, std::string> texts{{0, "begin"}, {300000, "middle"}, {700000, "end"}};
    take(contents_of_bytes(test::bzip2(test::tar_with_holes("etc/app/holes", 1000000, texts))));
    for (const std::size_t pieces : {KeptContents::most_pieces, std::size_t{3}, std::size_t{2}}) {
        remove_all();
        keep({.folder = folder, .in_memory = 1}, pieces);
        restore();
        EXPECT_EQ(times_read, pieces == 2 ? 2 : 1);
        std::string expected(1000000, '\0');
        for (const auto &[offset, text] : texts) {
            expected.replace(offset, text.size(), text);
        }
        EXPECT_EQ(test::read_file("/etc/app/holes"), expected);
        struct stat status {};
        ASSERT_EQ(stat("/etc/app/holes", &status), 0);
        EXPECT_LT(status.st_blocks * 512, 100000);
    }
}

TEST_F(KeptContentsTest, EmptyFilesNeedNoPiece)
{
    test::write_file("/etc/app/empty", "");
    pack();
    test::write_file("/etc/app/empty", "no more");
    keep({.folder = folder}, 0);
    EXPECT_THAT(changes.replaced, ElementsAre("/etc/app/empty"));
    restore();
    EXPECT_EQ(times_read, 1);
    EXPECT_TRUE(fs::is_empty("/etc/app/empty"));
}

TEST_F(KeptContentsTest, SecondNamesGetTheContentsOfTheFirst)
{
    fs::create_hard_link(one, "/etc/app/second");
    pack();
    remove_all();
    keep();
    restore();
    EXPECT_EQ(times_read, 1);
    EXPECT_EQ(fs::hard_link_count(one), 2);
    expect_the_files_of_the_archive();

    fs::remove("/etc/app/second");
    paths = GroupPaths(definition, "/etc/app/second");
    keep();
    EXPECT_THAT(changes.replaced, ElementsAre("/etc/app/second"));
    restore();
    EXPECT_EQ(test::read_file("/etc/app/second"), std::string(300000, 'o'));
    EXPECT_EQ(fs::hard_link_count(one), 1);
}

TEST_F(KeptContentsTest, OfAMemberThatComesTwiceTheLaterOneCounts)
{
    const std::string later = test::tar_of("etc/app/one", "later, and longer");
    for (const std::string &is_here : {std::string("first"), std::string("later, and longer"), std::string()}) {
        take(contents_of_bytes(test::bzip2(test::tar_of("etc/app/one", "first").substr(0, 1024) + later)));
        test::write_file(one, is_here);
        let_files_settle();
        keep({.folder = folder, .in_memory = 1});
        restore();
        EXPECT_EQ(times_read, 1);
        EXPECT_EQ(test::read_file(one), "later, and longer") << is_here;
    }
}

TEST_F(KeptContentsTest, OnlyWhatThereIsNoRoomForIsUnpackedAgain)
{
    for (const std::uint64_t bytes : {std::uint64_t{0}, little, std::uint64_t{400000}, std::uint64_t{899999}}) {
        remove_all();
        keep({.folder = folder, .in_memory = little, .bytes = bytes});
        restore();
        EXPECT_EQ(times_read, 2) << bytes;
        expect_the_files_of_the_archive();
    }
    remove_all();
    keep({.folder = folder, .in_memory = little, .bytes = 900000});
    restore();
    EXPECT_EQ(times_read, 1);
}

TEST_F(KeptContentsTest, WithoutAFileTheArchiveIsUnpackedAgain)
{
    ASSERT_EQ(test::mount_small(folder, 1 << 20, true), 0);
    for (const SpoolRule &rule :
         {SpoolRule{.folder = "/opt/none", .in_memory = little}, SpoolRule{.folder = folder, .in_memory = little},
          SpoolRule{.folder = "/opt", .in_memory = little, .spared = std::uint64_t{1} << 60}}) {
        remove_all();
        keep(rule);
        restore();
        EXPECT_EQ(times_read, 2) << rule.folder;
        expect_the_files_of_the_archive();
    }
    test::unmount(folder);
}

// A file that becomes longer than a process may write ends it.
TEST_F(KeptContentsTest, TheFileIsNeverLongerThanAProcessMayWrite)
{
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit less{310000, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &less), 0);
    remove_all();
    keep();
    restore();
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_EQ(times_read, 2);
    expect_the_files_of_the_archive();
}

TEST_F(KeptContentsTest, ADiskThatBecomesFullInTheMiddleOfAMemberIsNoMatter)
{
    ASSERT_EQ(test::mount_small(folder, 8 << 20), 0);
    bool is_full = false;
    archive.look = [&is_full] {
        if (!is_full && !spool_file().empty() && fs::file_size(spool_file()) > 350000) {
            std::ofstream(std::string(folder) + "/filler") << std::string(9 << 20, 'f');
            is_full = true;
        }
    };
    remove_all();
    keep();
    EXPECT_TRUE(is_full);
    EXPECT_LT(fs::file_size(spool_file()), 310000) << "the first member";
    EXPECT_GT(fs::file_size(spool_file()), 290000);
    restore();
    EXPECT_EQ(times_read, 2);
    expect_the_files_of_the_archive();
    test::unmount(folder);
}

TEST_F(KeptContentsTest, OfADamagedArchiveNothingIsLeft)
{
    const std::string whole = test::read_file(path);
    take({});
    const int descriptors = test::open_descriptors();
    remove_all();
    for (const std::string &bytes : {whole + "x", whole.substr(0, whole.size() - 1), test::with_flipped_byte(whole)}) {
        take(contents_of_bytes(bytes));
        EXPECT_THROW(keep(), DamagedArchive);
        EXPECT_EQ(spool_file(), "");
        EXPECT_EQ(test::open_descriptors(), descriptors);
    }
    EXPECT_TRUE(fs::is_empty(folder));
}

TEST_F(KeptContentsTest, WhatCannotBeReadBackChangesNothing)
{
    test::write_file(one, "own");
    keep();
    ASSERT_EQ(truncate(spool_file().c_str(), 100000), 0);
    try {
        restore();
        FAIL() << "it was restored";
    } catch (const Failure &failure) {
        EXPECT_EQ(failure.exit(), Exit::platform);
        EXPECT_STREQ(failure.what(),
                     "What is kept aside in /opt/kesta_sys/spool could not be read back: Input/output error.");
    }
    EXPECT_EQ(test::read_file(one), "own");
    expect_nothing_staged();
}

TEST_F(KeptContentsTest, ASignalIsLookedAtWhileItIsReadBack)
{
    test::write_file(one, "own");
    keep();
    int looks = 0;
    archive.look = [&looks] {
        if (++looks == 3) {
            throw Failure(Exit::interrupted, "interrupted", "Stopped.", "");
        }
    };
    EXPECT_THROW(restore(), Failure);
    EXPECT_EQ(test::read_file(one), "own");
    expect_nothing_staged();
}

TEST_F(KeptContentsTest, WhatChangedSinceIsComparedWithWhatIsKept)
{
    test::write_file(one, std::string(300000, 'x'));
    keep();
    test::write_file(one, std::string(300000, 'o'));
    EXPECT_THAT(compare().replaced, IsEmpty());
    test::write_file(one, std::string(300000, 'y'));
    EXPECT_THAT(compare().replaced, ElementsAre(one));
    restore();
    EXPECT_EQ(times_read, 1);
    expect_the_files_of_the_archive();
}
