// A test of the embedded platform's libraries: real files in a folder of its own. The settings are
// read once in a process, so all tests of a program share them.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

namespace test {

namespace fs = std::filesystem;

// The folder of this process, removed at its end.
inline const std::string &folder()
{
    static const std::string path = [] {
        char name[] = "/tmp/kesta-platform-XXXXXX";
        if (!mkdtemp(name)) {
            abort();
        }
        return std::string(name);
    }();
    return path;
}

inline void write_file(const std::string &path, const std::string &bytes)
{
    std::ofstream file(path, std::ios::binary);
    file << bytes;
}

inline std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Runs a body in a process of its own and gives its wait status.
inline int in_process(const std::function<void()> &body)
{
    const pid_t child = fork();
    if (child == 0) {
        body();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
}

inline std::vector<std::string> names_in(const std::string &path)
{
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(path)) {
        names.push_back(entry.path().filename());
    }
    return names;
}

class PlatformTest : public testing::Test {
protected:
    PlatformTest()
    {
        fs::remove_all(folder());
        fs::create_directories(nv());
        fs::create_directories(area());
    }
    ~PlatformTest() override { fs::remove_all(folder()); }

    static std::string nv() { return folder() + "/nv"; }
    static std::string area() { return folder() + "/sysback"; }
    static void faults(const std::string &rules)
    {
        // Under a new name each time, and renamed: the change is seen at once.
        static int count = 0;
        const std::string fresh = folder() + "/faults." + std::to_string(++count);
        write_file(fresh, rules);
        fs::rename(fresh, folder() + "/faults");
    }
    static void no_faults() { fs::remove(folder() + "/faults"); }
};

}  // namespace test
