// Files of a tree that others may write in: opened without following a link, and only what is a plain file.
#include "plain_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "library_test.h"

using namespace test;

class PlainFile : public LibraryTest {
protected:
    PlainFile()
    {
        EXPECT_EQ(run_shell("rm -rf " + folder + " && mkdir -p " + folder + "/a && printf old > " + folder + "/a/file"),
                  0);
    }
    ~PlainFile() override { EXPECT_EQ(run_shell("rm -rf " + folder), 0); }

    // The descriptor, or the negative error number; a descriptor is closed.
    int result_of(const char *path, int flags) const
    {
        const int before = open_descriptors();
        errno = 0;
        const int fd = kesta::open_plain_below(folder.c_str(), path, flags, 0600);
        const int result = fd < 0 ? -errno : fd;
        if (fd >= 0) {
            close(fd);
        }
        EXPECT_EQ(open_descriptors(), before) << path;
        return result;
    }

    const std::string folder = "/var/run/kesta_sys/tmp/plain";
};

TEST_F(PlainFile, IsOpenedAndEmptiedWhereItIsAskedFor)
{
    EXPECT_GT(result_of("/a//file", O_RDONLY), 2);
    EXPECT_EQ(read_file(folder + "/a/file"), "old");
    EXPECT_GT(result_of("a/file", O_WRONLY | O_TRUNC), 2);
    EXPECT_EQ(read_file(folder + "/a/file"), "");
    EXPECT_GT(result_of("a/new", O_WRONLY | O_CREAT), 2);
}

TEST_F(PlainFile, IsLeftAsItIsIfItCanNotBeEmptied)
{
    EXPECT_EQ(result_of("a/file", O_RDONLY | O_TRUNC), -EINVAL) << "a file that is only read is not emptied";
    EXPECT_EQ(read_file(folder + "/a/file"), "old");
}

TEST_F(PlainFile, IsNoFolderFifoOrLink)
{
    const std::string make =
        "cd " + folder + " && ln -s file a/link && ln a/file a/second && mkfifo a/fifo && ln -s a b";
    ASSERT_EQ(run_shell(make), 0);
    EXPECT_EQ(result_of("a", O_RDONLY), -EINVAL);
    EXPECT_EQ(result_of("a/fifo", O_RDONLY), -EINVAL) << "and nobody waits for its writer";
    EXPECT_EQ(result_of("a/link", O_RDONLY), -ELOOP);
    EXPECT_EQ(result_of("a/second", O_RDONLY), -EMLINK);
    EXPECT_EQ(result_of("b/new", O_WRONLY | O_CREAT), -ENOTDIR);
    EXPECT_EQ(result_of("none/file", O_RDONLY), -ENOENT);
    EXPECT_EQ(read_file(folder + "/a/file"), "old");
}

TEST_F(PlainFile, StreamOfADescriptorThatCanNotBeReadIsNone)
{
    const int before = open_descriptors();
    const int fd = kesta::open_plain_below(folder.c_str(), "a/file", O_WRONLY, 0600);
    ASSERT_GE(fd, 0);
    errno = 0;
    EXPECT_EQ(kesta::stream_of(fd), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(open_descriptors(), before) << "the descriptor is closed";
    EXPECT_EQ(kesta::stream_of(-1), nullptr);
}
