#include "sbacc.h"

#include <errno.h>

#include "platform_test.h"

using namespace test;
using testing::UnorderedElementsAre;

class Sbacc : public PlatformTest {
protected:
    static int open(const char *name, const char *mode)
    {
        int handle = -1;
        int flag = 7;
        const int result = sbacc_open(name, mode, &handle, &flag);
        if (result == 0) {
            EXPECT_EQ(flag, 1);
            return handle;
        }
        EXPECT_LT(result, 0);
        EXPECT_EQ(handle, -1);
        return result;
    }
    static int put(const char *name, const std::string &bytes)
    {
        const int handle = open(name, "w");
        if (handle < 0) {
            return handle;
        }
        const int written = sbacc_write(bytes.data(), static_cast<unsigned>(bytes.size()), 0, handle);
        const int closed = sbacc_close(handle);
        return written < 0 ? written : closed;
    }
    static std::string get(const char *name)
    {
        const int handle = open(name, "r");
        if (handle < 0) {
            return "error " + std::to_string(handle);
        }
        const int size = sbacc_read_size(handle);
        std::string bytes(static_cast<std::size_t>(size), '?');
        EXPECT_EQ(sbacc_read(bytes.data(), static_cast<unsigned>(size), 0, handle), size);
        EXPECT_EQ(sbacc_close(handle), 0);
        return bytes;
    }
    static std::string stored(const char *name) { return read_file(area() + "/" + name); }
};

TEST_F(Sbacc, WritesAreSeenWholeAtClose)
{
    ASSERT_EQ(put("kesta_wwn", "former"), 0);
    const int handle = open("kesta_wwn", "w");
    ASSERT_GE(handle, 0);
    EXPECT_EQ(sbacc_write("lat", 3, 0, handle), 3);
    EXPECT_EQ(get("kesta_wwn"), "former");
    EXPECT_EQ(sbacc_write("er", 2, 3, handle), 2);
    EXPECT_EQ(get("kesta_wwn"), "former");
    EXPECT_EQ(sbacc_close(handle), 0);
    EXPECT_EQ(get("kesta_wwn"), "later");
    EXPECT_THAT(names_in(area()), UnorderedElementsAre("kesta_wwn"));
}

TEST_F(Sbacc, ShorterContentsReplaceLongerOnes)
{
    ASSERT_EQ(put("f", "a long text"), 0);
    ASSERT_EQ(put("f", "short"), 0);
    EXPECT_EQ(get("f"), "short");
    ASSERT_EQ(put("f", ""), 0);
    EXPECT_EQ(get("f"), "");
}

TEST_F(Sbacc, OpeningForWritingWithoutWritingKeepsTheContents)
{
    ASSERT_EQ(put("f", "kept"), 0);
    const int handle = open("f", "w");
    EXPECT_EQ(sbacc_close(handle), 0);
    EXPECT_EQ(get("f"), "kept");
    const int fresh = open("new", "w");
    EXPECT_EQ(sbacc_close(fresh), 0);
    EXPECT_EQ(open("new", "r"), -ENOENT) << "nothing was written";
}

TEST_F(Sbacc, RecordedSizeIsWhatReadSizeGives)
{
    ASSERT_EQ(put("kesta_backup0", "0123456789"), 0);
    int handle = open("kesta_backup0", "r");
    EXPECT_EQ(sbacc_read_size(handle), 10) << "not recorded: the length";
    sbacc_close(handle);
    handle = open("kesta_backup0", "w");
    EXPECT_EQ(sbacc_write_size(4, handle), 0);
    EXPECT_EQ(sbacc_close(handle), 0);
    EXPECT_EQ(get("kesta_backup0"), "0123");
    EXPECT_EQ(stored("kesta_backup0"), "0123456789");
    ASSERT_EQ(put("kesta_backup0", "other"), 0);
    EXPECT_EQ(get("kesta_backup0"), "other") << "the record went with the contents it was for";
    handle = open("kesta_backup0", "w");
    EXPECT_EQ(sbacc_write_size(5, handle), 0);
    sbacc_close(handle);
    EXPECT_THAT(names_in(area()), UnorderedElementsAre("kesta_backup0"));
}

TEST_F(Sbacc, RecordOfAnEmptySize)
{
    ASSERT_EQ(put("f", "abc"), 0);
    const int handle = open("f", "w");
    EXPECT_EQ(sbacc_write_size(0, handle), 0);
    sbacc_close(handle);
    EXPECT_EQ(get("f"), "");
}

TEST_F(Sbacc, ReaderKeepsTheFileThatItOpened)
{
    ASSERT_EQ(put("f", "old contents"), 0);
    const int handle = open("f", "r");
    ASSERT_EQ(put("f", "new"), 0);
    char bytes[32] = "";
    EXPECT_EQ(sbacc_read_size(handle), 12);
    EXPECT_EQ(sbacc_read(bytes, 12, 0, handle), 12);
    EXPECT_STREQ(bytes, "old contents");
    EXPECT_EQ(sbacc_close(handle), 0);
}

TEST_F(Sbacc, ReadsEndAtTheEndOfTheFile)
{
    ASSERT_EQ(put("f", "abcdef"), 0);
    const int handle = open("f", "r");
    char bytes[32] = "";
    EXPECT_EQ(sbacc_read(bytes, 4, 0, handle), 4);
    EXPECT_EQ(sbacc_read(bytes, 32, 4, handle), 2);
    EXPECT_EQ(sbacc_read(bytes, 1, 6, handle), 0);
    sbacc_close(handle);
}

TEST_F(Sbacc, NamesThatLeaveTheFolderOrHideAreRefused)
{
    for (const char *name : {"", ".", "..", ".hidden", "a/b", "/etc/passwd", "../x"}) {
        EXPECT_EQ(open(name, "r"), -EINVAL) << name;
        EXPECT_EQ(open(name, "w"), -EINVAL) << name;
    }
    EXPECT_EQ(open(std::string(64, 'n').c_str(), "w"), -EINVAL);
    EXPECT_EQ(put(std::string(63, 'n').c_str(), "x"), 0);
    EXPECT_EQ(open("f", "rw"), -EINVAL);
    EXPECT_EQ(open("f", ""), -EINVAL);
    int number;
    EXPECT_EQ(sbacc_open(nullptr, "r", &number, &number), -EINVAL);
    EXPECT_EQ(sbacc_open("f", nullptr, &number, &number), -EINVAL);
    EXPECT_EQ(sbacc_open("f", "r", nullptr, &number), -EINVAL);
    EXPECT_EQ(sbacc_open("f", "r", &number, nullptr), -EINVAL);
}

TEST_F(Sbacc, HandlesAreChecked)
{
    ASSERT_EQ(put("f", "x"), 0);
    char byte;
    for (const int bad : {-1, 0, 1, 12345, 0x7fffffff}) {
        EXPECT_EQ(sbacc_read(&byte, 1, 0, bad), -EINVAL);
        EXPECT_EQ(sbacc_write(&byte, 1, 0, bad), -EINVAL);
        EXPECT_EQ(sbacc_read_size(bad), -EINVAL);
        EXPECT_EQ(sbacc_write_size(1, bad), -EINVAL);
        EXPECT_EQ(sbacc_close(bad), -EINVAL);
    }
    const int reading = open("f", "r");
    EXPECT_EQ(sbacc_write(&byte, 1, 0, reading), -EINVAL);
    EXPECT_EQ(sbacc_write_size(1, reading), -EINVAL);
    EXPECT_EQ(sbacc_close(reading), 0);
    EXPECT_EQ(sbacc_close(reading), -EINVAL) << "closed already";
    EXPECT_EQ(sbacc_read(&byte, 1, 0, reading), -EINVAL);
    const int writing = open("f", "w");
    EXPECT_NE(writing, reading) << "a stale handle stays stale";
    EXPECT_EQ(sbacc_read(&byte, 1, 0, writing), -EINVAL);
    EXPECT_EQ(sbacc_read_size(writing), -EINVAL);
    EXPECT_EQ(sbacc_write(nullptr, 1, 0, writing), -EINVAL);
    EXPECT_EQ(sbacc_close(writing), 0);
}

TEST_F(Sbacc, HandlesRunOutAndComeBack)
{
    ASSERT_EQ(put("f", "x"), 0);
    std::vector<int> handles;
    int handle;
    while ((handle = open("f", "r")) >= 0) {
        handles.push_back(handle);
        ASSERT_LT(handles.size(), 1000u);
    }
    EXPECT_EQ(handle, -EMFILE);
    for (const int each : handles) {
        EXPECT_EQ(sbacc_close(each), 0);
    }
    EXPECT_EQ(get("f"), "x");
}

TEST_F(Sbacc, FolderWhereAFileShouldBeAndMissingArea)
{
    fs::create_directories(area() + "/f");
    EXPECT_EQ(open("f", "r"), -EISDIR);
    EXPECT_EQ(open("f", "w"), -EISDIR);
    fs::remove_all(area());
    EXPECT_EQ(open("g", "r"), -ENOENT);
    EXPECT_EQ(open("g", "w"), -ENOENT);
}

TEST_F(Sbacc, AreaThatVanishesBeforeCloseIsToldAtClose)
{
    ASSERT_EQ(put("f", "former"), 0);
    const int handle = open("f", "w");
    EXPECT_EQ(sbacc_write("x", 1, 0, handle), 1);
    fs::remove_all(area());
    EXPECT_LT(sbacc_close(handle), 0);
}

TEST_F(Sbacc, KilledWriterLeavesTheFormerContentsAndItsRestIsRemoved)
{
    ASSERT_EQ(put("f", "former"), 0);
    EXPECT_TRUE(WIFSIGNALED(in_process([] {
        const int handle = open("f", "w");
        EXPECT_EQ(sbacc_write("half", 4, 0, handle), 4);
        raise(SIGKILL);
    })));
    EXPECT_EQ(get("f"), "former");
    EXPECT_EQ(names_in(area()).size(), 2u) << "the rest of the dead writer";
    ASSERT_EQ(put("f", "later"), 0);
    EXPECT_THAT(names_in(area()), UnorderedElementsAre("f"));
}

TEST_F(Sbacc, WritersThatLiveAreLeftAlone)
{
    const int first = open("f", "w");
    const int second = open("f", "w");
    EXPECT_EQ(sbacc_write("first", 5, 0, first), 5);
    EXPECT_EQ(sbacc_write("second", 6, 0, second), 6);
    EXPECT_EQ(sbacc_close(second), 0);
    EXPECT_EQ(get("f"), "second");
    EXPECT_EQ(sbacc_close(first), 0);
    EXPECT_EQ(get("f"), "first") << "the last one to close holds";
}

TEST_F(Sbacc, FaultsOnDemand)
{
    ASSERT_EQ(put("f", "former"), 0);
    int handle = -1;
    int flag = 1;
    faults("sb_open 1 once fail 13\nsb_open 2 once closeflag\n");
    EXPECT_EQ(sbacc_open("f", "r", &handle, &flag), -13);
    EXPECT_EQ(sbacc_open("f", "r", &handle, &flag), 0);
    EXPECT_EQ(flag, 0);
    sbacc_close(handle);

    char bytes[8] = "";
    faults("sb_read 1 once short 2\nsb_read 2 once fail\nsb_size 1 once fail 7\n");
    handle = open("f", "r");
    EXPECT_EQ(sbacc_read(bytes, 6, 0, handle), 2);
    EXPECT_EQ(sbacc_read(bytes, 6, 0, handle), -EIO);
    EXPECT_EQ(sbacc_read_size(handle), -7);
    EXPECT_EQ(sbacc_close(handle), 0);

    faults("sb_write 1 once short 3\nsb_write 2 once fail 28\nsb_write_size 1 once fail 9\n");
    handle = open("f", "w");
    EXPECT_EQ(sbacc_write("longer", 6, 0, handle), 3);
    EXPECT_LT(sbacc_close(handle), 0) << "a short write is not published";
    handle = open("f", "w");
    EXPECT_EQ(sbacc_write("longer", 6, 0, handle), -28);
    EXPECT_EQ(sbacc_close(handle), 0) << "nothing was begun";
    handle = open("f", "w");
    EXPECT_EQ(sbacc_write_size(1, handle), -9);
    EXPECT_EQ(sbacc_close(handle), 0);

    faults("sb_close 1 once fail 5\n");
    handle = open("f", "w");
    EXPECT_EQ(sbacc_write("later", 5, 0, handle), 5);
    EXPECT_EQ(sbacc_close(handle), -5);
    EXPECT_EQ(sbacc_close(handle), -EINVAL) << "a close that fails still closes";
    no_faults();
    EXPECT_EQ(get("f"), "former");
    EXPECT_THAT(names_in(area()), UnorderedElementsAre("f"));
}
