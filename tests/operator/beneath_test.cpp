// Reaching files below a root by descriptor: the same whether the kernel resolves a path in one
// call, or it is walked folder by folder.
#include "beneath.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/openat2.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <thread>

using namespace engine;
namespace fs = std::filesystem;

namespace {

bool has_openat2()
{
    struct open_how how {};
    how.flags = O_PATH;
    const long fd = syscall(SYS_openat2, AT_FDCWD, "/", &how, sizeof(how));
    return fd >= 0 && close(static_cast<int>(fd)) == 0;
}

}  // namespace

class BeneathTest : public testing::TestWithParam<Beneath::Walk> {
protected:
    BeneathTest()
    {
        std::string name = (fs::temp_directory_path() / "beneath-XXXXXX").string();
        if (!mkdtemp(name.data())) {
            abort();
        }
        home = name;
        fs::create_directories(home / "root/etc/app");
        fs::create_directories(home / "outside");
        write(home / "root/etc/app/file", "inside");
        write(home / "outside/file", "outside");
    }
    ~BeneathTest() override { fs::remove_all(home); }

    static void write(const fs::path &path, const std::string &text) { std::ofstream(path) << text; }
    static std::string read(const Descriptor &file)
    {
        char text[64];
        const ssize_t got = file ? ::read(file.get(), text, sizeof(text)) : -1;
        return got < 0 ? "" : std::string(text, static_cast<std::size_t>(got));
    }
    Beneath root() const { return Beneath((home / "root").string(), GetParam()); }
    void expect_refused(const std::string &path, int error) const
    {
        errno = 0;
        const Descriptor opened = root().open(path, O_RDONLY);
        EXPECT_FALSE(opened) << path;
        EXPECT_EQ(errno, error) << path;
    }

    fs::path home;
};

TEST_P(BeneathTest, KernelHasTheCallWhereItIsToBeTested)
{
    if (GetParam() == Beneath::Walk::by_kernel) {
        EXPECT_TRUE(has_openat2());
    }
}

TEST_P(BeneathTest, FilesAreFoundWithAndWithoutASlash)
{
    EXPECT_EQ(read(root().open("etc/app/file", O_RDONLY)), "inside");
    EXPECT_EQ(read(root().open("/etc//app/file", O_RDONLY)), "inside");
    EXPECT_TRUE(root().open("", O_PATH));
    expect_refused("etc/app/none", ENOENT);
    expect_refused("etc/none/file", ENOENT);
    expect_refused("etc/app/file/below", ENOTDIR);
    EXPECT_NE(fcntl(root().open("etc", O_PATH).get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_P(BeneathTest, NothingLeadsOut)
{
    expect_refused("../outside/file", EXDEV);
    expect_refused("etc/../../outside/file", EXDEV);
    expect_refused("etc/./app/file", EXDEV);
    fs::create_symlink(home / "outside", home / "root/etc/absolute");
    fs::create_symlink("../../outside", home / "root/etc/relative");
    fs::create_symlink("app", home / "root/etc/inside");
    fs::create_symlink("file", home / "root/etc/app/last");
    for (const char *path : {"etc/absolute/file", "etc/relative/file", "etc/inside/file", "etc/app/last"}) {
        expect_refused(path, ELOOP);
    }
    EXPECT_EQ(root().obstacle("etc/inside/file"), "/etc/inside");
    EXPECT_EQ(root().obstacle("etc/app/file/x/y"), "/etc/app/file");
    EXPECT_EQ(root().obstacle("etc/app/none/x"), "");
}

TEST_P(BeneathTest, EntriesAreWorkedOnInTheirFolder)
{
    const Entry entry = root().entry("etc/app/new");
    ASSERT_TRUE(entry);
    // The folder is moved away, and another one put in its place: what was reached stays reached.
    fs::rename(home / "root/etc/app", home / "root/etc/moved");
    fs::create_symlink(home / "outside", home / "root/etc/app");
    {
        const Descriptor file = make_file(entry);
        ASSERT_TRUE(file);
        EXPECT_EQ(::write(file.get(), "new", 3), 3);
        EXPECT_TRUE(set_mode(file, 0640));
        EXPECT_FALSE(make_file(entry)) << "only what is new";
        EXPECT_EQ(errno, EEXIST);
    }
    const Entry other{Descriptor(dup(entry.folder.get())), "placed"};
    EXPECT_TRUE(take_place(other, "new"));
    EXPECT_FALSE(fs::exists(home / "outside/placed"));
    EXPECT_TRUE(fs::exists(home / "root/etc/moved/placed"));
    EXPECT_TRUE(make_folder(entry));
    EXPECT_FALSE(make_folder(entry));
    const Entry link{Descriptor(dup(entry.folder.get())), "link"};
    EXPECT_TRUE(make_link(link, "placed"));
    EXPECT_EQ(link_text(link), "placed");
    EXPECT_EQ(link_text(other), std::nullopt);
    struct stat status;
    const Entry second{Descriptor(dup(entry.folder.get())), "second"};
    EXPECT_TRUE(make_name(second, open_itself(other, status)));
    EXPECT_TRUE(stat_of(second, status));
    EXPECT_EQ(status.st_nlink, 2u);
    EXPECT_TRUE(remove(second, "link"));
    EXPECT_FALSE(remove(second, "link"));
}

TEST_P(BeneathTest, OnlyFilesAndFoldersAreOpened)
{
    struct stat status;
    ASSERT_EQ(mkfifo((home / "root/etc/fifo").c_str(), 0600), 0);
    EXPECT_FALSE(open_plain(root().entry("etc/fifo"), status)) << "without waiting for a writer";
    EXPECT_EQ(errno, EINVAL);
    fs::create_symlink("app/file", home / "root/etc/link");
    EXPECT_FALSE(open_plain(root().entry("etc/link"), status));
    EXPECT_EQ(errno, ELOOP);
    EXPECT_TRUE(open_itself(root().entry("etc/link"), status));
    EXPECT_TRUE(S_ISLNK(status.st_mode));
    EXPECT_TRUE(open_plain(root().entry("etc"), status));
    EXPECT_EQ(read(open_plain(root().entry("etc/app/file"), status)), "inside");
    EXPECT_FALSE(root().entry(""));
}

TEST_P(BeneathTest, OwnLinksAreSettledWhereNobodyElseCanHaveMadeThem)
{
    fs::create_symlink("app", home / "root/etc/own");
    fs::create_symlink("/etc/own", home / "root/etc/again");
    EXPECT_EQ(root().settled("/etc/again/file"), "etc/app/file");
    EXPECT_EQ(root().settled("etc/none/file"), "etc/none/file");
    fs::create_symlink("round", home / "root/etc/round");
    EXPECT_EQ(root().settled("etc/round"), "etc/round");
    fs::permissions(home / "root/etc", fs::perms::others_write, fs::perm_options::add);
    EXPECT_EQ(root().settled("/etc/again/file"), "etc/again/file");
    if (geteuid() == 0) {
        fs::permissions(home / "root/etc", fs::perms::others_write, fs::perm_options::remove);
        ASSERT_EQ(lchown((home / "root/etc/own").c_str(), 65534, 65534), 0);
        EXPECT_EQ(root().settled("/etc/again/file"), "etc/own/file");
    }
}

TEST_P(BeneathTest, FolderThatIsSwappedForALinkIsNeverLeft)
{
    std::atomic<bool> done = false;
    const fs::path app = home / "root/etc/app";
    std::thread swapper([&] {
        while (!done) {
            fs::rename(app, home / "root/etc/aside");
            fs::create_symlink(home / "outside", app);
            fs::remove(app);
            fs::rename(home / "root/etc/aside", app);
        }
    });
    int left = 0;
    for (int i = 0; i < 20000; ++i) {
        left += read(root().open("etc/app/file", O_RDONLY)) == "outside";
    }
    done = true;
    swapper.join();
    EXPECT_EQ(left, 0);
    EXPECT_TRUE(root().open("etc/app/file", O_RDONLY)) << "when nobody swaps it";
}

INSTANTIATE_TEST_SUITE_P(BothWays, BeneathTest, testing::Values(Beneath::Walk::by_kernel, Beneath::Walk::by_steps),
                         [](const testing::TestParamInfo<Beneath::Walk> &walk) {
                             return walk.param == Beneath::Walk::by_kernel ? "ByKernel" : "BySteps";
                         });
