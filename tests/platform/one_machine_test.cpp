// Folders on file systems that other machines may share are refused, and only those.
#include <errno.h>
#include <linux/magic.h>
#include <sys/syscall.h>
#include <sys/vfs.h>

#include "platform_test.h"
#include "sanfwctl.h"
#include "sbacc.h"
#include "text_lines.h"

using namespace test;
using testing::AllOf;
using testing::HasSubstr;

namespace {

unsigned shown_type = 0;  // what statfs shows of every folder; 0: what it is

}  // namespace

extern "C" __attribute__((visibility("default"))) int statfs(const char *path, struct statfs *status) noexcept
{
    const auto result = static_cast<int>(syscall(SYS_statfs, path, status));
    if (result == 0 && shown_type != 0) {
        status->f_type = static_cast<int>(shown_type);  // extended by its sign, as some kernels do
    }
    return result;
}

namespace {

int nv_transfer(bool writes)
{
    char bytes[4] = "new";
    cpfw_nv_region_t region = 2;
    cpfw_nv_access_t access{bytes, 0, sizeof(bytes)};
    return writes ? zKTsanfwctl_write_nv(-1, &region, &access, 1) : zKTsanfwctl_read_nv(-1, &region, &access, 1);
}

int open_area(const char *mode)
{
    int handle = -1;
    int flag = 0;
    const int result = sbacc_open("f", mode, &handle, &flag);
    return result < 0 ? result : sbacc_close(handle);
}

// All that opens a folder; each process begins with none open. Gives its four results.
std::vector<int> results_on(unsigned type)
{
    const std::string told = folder() + "/results";
    EXPECT_EQ(in_process([&] {
                  shown_type = type;
                  std::ofstream out(told);
                  out << nv_transfer(false) << ' ' << nv_transfer(true) << ' ' << open_area("w") << ' '
                      << open_area("r");
              }),
              0);
    std::ifstream in(told);
    return {std::istream_iterator<int>(in), {}};
}

// The names and contents of the files in a folder.
std::string state_of(const std::string &path)
{
    std::string text;
    for (const std::string &name : names_in(path)) {
        text += name + "=" + read_file(path + "/" + name) + "\n";
    }
    return text;
}

constexpr const char *allowed = "KESTA_PLATFORM_ALLOW_SHARED_FILE_SYSTEM";

// Settings are read once: the test runs itself again with another one.
int again_with(const char *variable, const char *value)
{
    const testing::TestInfo *test = testing::UnitTest::GetInstance()->current_test_info();
    const std::string filter = std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
    return in_process([&] {
        setenv(variable, value, 1);
        execl("/proc/self/exe", "platform_test", filter.c_str(), nullptr);
    });
}

}  // namespace

class OneMachine : public PlatformTest {
protected:
    OneMachine() { write_file(area() + "/f", "former"); }
};

TEST_F(OneMachine, SharedFileSystemsAreRefusedAndNothingIsMadeThere)
{
    const std::string before = state_of(area());
    for (const unsigned type : {0x6969u /* nfs */, 0x517bu /* smb */, 0xff534d42u /* cifs */, 0xfe534d42u /* smb2 */,
                                0x01161970u /* gfs2 */, 0x7461636fu /* ocfs2 */, 0x00c36400u /* ceph */,
                                0x0bd00bd0u /* lustre */, 0x47504653u /* gpfs */, 0x5346414fu /* afs */}) {
        EXPECT_THAT(results_on(type), testing::ElementsAre(-EREMOTE, -EREMOTE, -EREMOTE, -EREMOTE)) << std::hex << type;
        EXPECT_TRUE(names_in(nv()).empty()) << std::hex << type;
        EXPECT_EQ(state_of(area()), before);
    }
}

TEST_F(OneMachine, FileSystemsOfOneMachineAreUsed)
{
    // Zero first: what the folder is on really.
    for (const unsigned type : {0u, unsigned{EXT4_SUPER_MAGIC}, unsigned{TMPFS_MAGIC}, unsigned{OVERLAYFS_SUPER_MAGIC},
                                unsigned{XFS_SUPER_MAGIC}, unsigned{BTRFS_SUPER_MAGIC}, unsigned{F2FS_SUPER_MAGIC},
                                0x2fc12fc1u /* zfs */, unsigned{RAMFS_MAGIC}}) {
        EXPECT_THAT(results_on(type), testing::ElementsAre(0, 0, 0, 0)) << std::hex << type;
    }
}

TEST_F(OneMachine, WhatCanNotBeToldIsUsed)
{
    for (const unsigned type : {unsigned{FUSE_SUPER_MAGIC}, unsigned{V9FS_MAGIC}, 0x12345678u}) {
        EXPECT_THAT(results_on(type), testing::ElementsAre(0, 0, 0, 0)) << std::hex << type;
    }
}

TEST_F(OneMachine, RefusalIsTracedOnceForEachFolderAndSaysWhatToDo)
{
    const std::string log = folder() + "/trace.log";
    EXPECT_EQ(in_process([] {
                  shown_type = 0x6969;
                  for (int i = 0; i < 3; ++i) {
                      EXPECT_EQ(nv_transfer(i % 2 == 0), -EREMOTE);
                      EXPECT_EQ(open_area("r"), -EREMOTE);
                  }
              }),
              0);
    const std::vector<std::string> lines = lines_of(read_file(log));
    ASSERT_EQ(lines.size(), 2u) << read_file(log);
    EXPECT_THAT(lines[0], AllOf(HasSubstr(" 1 one_machine.cpp:"), HasSubstr("nv_dir " + nv() + " is refused"),
                                HasSubstr("(nfs)"), HasSubstr("allow_shared_file_system = 1")));
    EXPECT_THAT(lines[1], HasSubstr("sysback_dir " + area() + " is refused"));
}

TEST_F(OneMachine, SettingAllowsIt)
{
    if (!getenv(allowed)) {
        EXPECT_EQ(again_with(allowed, "1"), 0);
        return;
    }
    EXPECT_THAT(results_on(0x6969), testing::ElementsAre(0, 0, 0, 0));
    EXPECT_FALSE(fs::exists(folder() + "/trace.log"));
}

TEST_F(OneMachine, FolderThatIsNotThereIsToldAsSuch)
{
    fs::remove_all(nv());
    fs::remove_all(area());
    EXPECT_THAT(results_on(0x6969), testing::ElementsAre(-ENOENT, -ENOENT, -ENOENT, -ENOENT));
}
