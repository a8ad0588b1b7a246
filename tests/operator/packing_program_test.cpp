// Archives that another program packs: the same as those of kestactl, whatever that program does.
#include "packing_program.h"

#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>

#include <filesystem>
#include <thread>

#include "archive_evidence.h"
#include "archive_limits.h"
#include "environment_archive.h"
#include "private_root.h"
#include "test_platform.h"

using namespace engine;
namespace fs = std::filesystem;

namespace {

constexpr const char *path = "/opt/kesta_sys/bakup/.save.tar.Z";
constexpr std::uint64_t many_bytes = std::uint64_t{1} << 30;

class PackingProgramTest : public testing::Test {
protected:
    PackingProgramTest()
    {
        test::reset();
        test::clear_appliance_folders();
        fs::remove(archive_limits_file);
        fs::remove_all("/etc/app");
        fs::create_directories("/etc/app");
        write_lines(3000000);
        test::write_file("/etc/app/two", "small\n");
        fs::create_symlink("one", "/etc/app/link");
        strcpy(definition.groupname, "network");
        strcpy(definition.setfile[0].pathname, "/etc/app");
    }
    static void write_lines(std::size_t bytes)
    {
        std::string text;
        for (int line = 0; text.size() < bytes; ++line) {
            text +=
                "line " + std::to_string(line * 7919L % 1000003) + "\n";  // no two alike: bzip2 is slow on repetitions
        }
        test::write_file("/etc/app/one", text);
    }
    static std::string program(const std::string &commands)
    {
        test::write_file("/opt/packer", "#!/bin/sh\nPATH=/usr/bin:/bin\n" + commands + "\n");
        (void)chmod("/opt/packer", 0755);
        return "/opt/packer";
    }
    std::string made_by(const std::string &packer) const
    {
        make_archive(
            definition, path, [] {}, packer);
        return test::read_file(path);
    }
    // What the library's own command line makes of it.
    static std::string unpacked(const std::string &bytes)
    {
        test::write_file("/opt/packed", bytes);
        EXPECT_EQ(std::system("/usr/bin/bunzip2 -c < /opt/packed > /opt/unpacked"), 0);
        return test::read_file("/opt/unpacked");
    }
    static int open_descriptors()
    {
        int count = 0;
        for ([[maybe_unused]] const auto &entry : fs::directory_iterator("/proc/self/fd")) {
            ++count;
        }
        return count;
    }

    KESTA_BACKUP_FILE definition{};
};

}  // namespace

TEST_F(PackingProgramTest, WhatItPacksIsUnpackedBitForBit)
{
    const std::string own = made_by("");
    const std::string other = made_by("/usr/bin/lbzip2");
    EXPECT_NE(own, other) << "it was not asked";
    EXPECT_TRUE(evidence_of_bytes(other).good());
    EXPECT_EQ(unpacked(own), unpacked(other));
}

TEST_F(PackingProgramTest, WhatItDoesNotPackIsPackedWithoutIt)
{
    write_lines(400000);  // more than it takes without having read any
    const std::string own = made_by("");
    const int descriptors = open_descriptors();
    for (const char *commands :
         {"exit 1", "exit 0", "cat > /dev/null", "cat > /dev/null; exit 3", "kill -9 $$",
          "head -c 100000 | bzip2; kill -9 $$", "cat", "bzip2 -c | head -c 20000", "bzip2 -c; echo more",
          "echo lies | bzip2", "head -c 300000 | bzip2", "tr n m | bzip2"}) {
        EXPECT_EQ(made_by(program(commands)), own) << commands;
        EXPECT_EQ(open_descriptors(), descriptors) << commands;
    }
    EXPECT_EQ(made_by("/opt/absent"), own);
    EXPECT_EQ(made_by("/opt"), own);
}

TEST_F(PackingProgramTest, ItTakesNoOptionsFromTheEnvironment)
{
    setenv("LBZIP2", "-1 -v", 1);
    setenv("BZIP2", "--nonsense", 1);
    const std::string packed = made_by("/usr/bin/lbzip2");
    unsetenv("LBZIP2");
    unsetenv("BZIP2");
    EXPECT_EQ(packed, made_by("/usr/bin/lbzip2"));
}

// It hangs, and somebody presses Ctrl-C: neither its process nor the half archive stays.
TEST_F(PackingProgramTest, ALookEndsIt)
{
    const std::string hanging = program("echo $$ > /opt/process; exec sleep 1000");
    const auto look = [] {
        if (fs::exists("/opt/process") && !test::read_file("/opt/process").empty()) {
            throw Failure(Exit::interrupted, "interrupted", "Interrupted.", "");
        }
    };
    try {
        make_archive(definition, path, look, hanging);
        FAIL() << "it was not interrupted";
    } catch (const Failure &failure) {
        EXPECT_EQ(failure.code(), "interrupted");
    }
    EXPECT_FALSE(fs::exists(path));
    const pid_t process = std::stoi(test::read_file("/opt/process"));
    EXPECT_TRUE(kill(process, 0) != 0 && errno == ESRCH) << "it goes on";
}

// It has a minute to get any further; here it has none. What it does not take is packed without it: see above.
TEST_F(PackingProgramTest, OneThatHangsIsGivenUpAndEnded)
{
    static_assert(PackingProgram::usual_patience == std::chrono::minutes(1));
    const std::string much(4'000'000, 'x');  // more than the system keeps for one that doesn't read
    const std::function<void()> look = [] {
    };
    struct Row {
        const char *commands;
        std::string_view bytes;
        bool is_taken;
    };
    for (const Row &row :
         {Row{"exec sleep 1000", much, false}, Row{"cat > /dev/null\nexec sleep 1000", "some", true}}) {
        const int descriptors = open_descriptors();
        fs::remove("/opt/process");
        const std::string hanging = program(std::string("echo $$ > /opt/process\n") + row.commands);
        pid_t process = 0;
        {
            const Descriptor file(open("/opt/packed", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
            PackingProgram packing(hanging, file.get(), look, std::chrono::milliseconds(0));
            while (!fs::exists("/opt/process") || test::read_file("/opt/process").empty()) {
                std::this_thread::yield();
            }
            process = std::stoi(test::read_file("/opt/process"));
            EXPECT_EQ(packing.take(row.bytes), row.is_taken) << row.commands;
            EXPECT_FALSE(packing.finish()) << row.commands;
            EXPECT_EQ(kill(process, 0), 0) << "it did not hang";
        }
        EXPECT_TRUE(kill(process, 0) != 0 && errno == ESRCH) << "it goes on";
        EXPECT_EQ(open_descriptors(), descriptors) << row.commands;
    }
}

TEST_F(PackingProgramTest, ItIsAskedWhereItIsWorthItAndNotSwitchedOff)
{
    test::write_file(archive_limits_file, "packing_threads = 2\n");
    EXPECT_EQ(packing_program(many_bytes), "/usr/bin/lbzip2");
    EXPECT_EQ(packing_program(1000), "");
    test::write_file(archive_limits_file, "packing_threads = 1\n");
    EXPECT_EQ(packing_program(many_bytes), "");
    test::write_file(archive_limits_file, "packing_threads = some\n");
    EXPECT_THROW(packing_program(many_bytes), Failure);
    fs::remove(archive_limits_file);
}
