// A lab of four controllers in a folder of its own, and commands run on them.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

namespace test {

namespace fs = std::filesystem;

struct Ran {
    int code = -1;
    std::string out;
    std::string err;

    nlohmann::json json() const
    {
        nlohmann::json parsed = nlohmann::json::parse(out, nullptr, false);
        EXPECT_FALSE(parsed.is_discarded()) << "stdout holds more than one JSON text:\n" << out;
        return parsed;
    }
};

inline std::string read_file(const fs::path &path)
{
    const std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;  // in blocks: snapshots read whole appliances
    bytes << file.rdbuf();
    return bytes.str();
}

inline void write_file(const fs::path &path, const std::string &bytes)
{
    fs::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary);
    file << bytes;
}

inline std::string quoted(const std::string &text)
{
    std::string result = "'";
    for (const char c : text) {
        result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return result + "'";
}

class LabTest : public testing::Test {
protected:
    LabTest()
    {
        // In memory where that can be had: each lab copies the machine's /etc four times.
        const bool has_memory = access("/dev/shm", W_OK) == 0;
        std::string name = std::string(has_memory ? "/dev/shm" : "/tmp") + "/kesta-lab-test-XXXXXX";
        if (!mkdtemp(name.data())) {
            abort();
        }
        home = name;
        dir = home / "lab";
        choose_platform();
        const Ran made = shell(lab() + " create " + dir.string() + " --product " KESTA_LAB_PRODUCT + platform_option());
        EXPECT_EQ(made.code, 0) << made.err;
    }
    ~LabTest() override
    {
        const Ran gone = shell(lab() + " destroy " + dir.string());
        EXPECT_EQ(gone.code, 0) << gone.err;
        EXPECT_FALSE(fs::exists(dir));
        fs::remove_all(home);
    }

    // On another platform than the one of the build: that of $KESTA_TEST_PLATFORM, where each lab has keys of its own.
    static std::string platform_option()
    {
        const char *const platform = getenv("KESTA_TEST_PLATFORM");
        return platform ? std::string(" --platform ") + platform : "";
    }
    void choose_platform() const
    {
        if (getenv("KESTA_TEST_PLATFORM")) {
            setenv("KESTA_PLATFORM_ETCD_PREFIX", ("/" + home.filename().string() + "/").c_str(), 1);
        }
    }

    static std::string lab() { return std::string(KESTA_BIN_DIR) + "/kesta-lab"; }

    Ran shell(const std::string &command) const
    {
        const std::string out = (home / "out").string();
        const std::string err = (home / "err").string();
        const std::string line = "( " + command + " ) > " + out + " 2> " + err + " < /dev/null";
        const int status = system(line.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), read_file(out), read_file(err)};
    }
    // Runs a shell command on a controller.
    Ran on(int controller, const std::string &command) const
    {
        return shell(lab() + " --dir " + dir.string() + " exec CNT" + std::to_string(controller) + " -- /bin/sh -c " +
                     quoted(command));
    }
    Ran ctl(int controller, const std::string &arguments) const { return on(controller, "kestactl " + arguments); }

    void succeed(const std::string &command) const
    {
        const Ran run = on(0, command);
        EXPECT_EQ(run.code, 0) << command << run.err;
    }

    std::string file_on(int controller, const std::string &path) const { return on(controller, "cat " + path).out; }

    // Where a file of a controller lies on the host.
    fs::path host_path(int controller, const std::string &path) const
    {
        return dir / ("cnt" + std::to_string(controller)) / path;
    }

    // A saved environment on a controller's flash; returns its bytes.
    std::string save_environment(int controller, const std::string &archive = "backup.tar.Z") const
    {
        const Ran saved = on(controller,
                             "mkdir -p /tmp/src/etc/app && echo one > /tmp/src/etc/app/one && "
                             "echo " +
                                 archive +
                                 " > /tmp/src/etc/app/which && "
                                 "tar -C /tmp/src -cjf /opt/kesta_sys/bakup/" +
                                 archive +
                                 " etc && "
                                 "cat /opt/kesta_sys/bakup/" +
                                 archive);
        EXPECT_EQ(saved.code, 0) << saved.err;
        return saved.out;
    }
    void set_slots(const std::string &backup = "kesta_backup0", const std::string &accept = "kesta_backup1") const
    {
        const Ran set = ctl(0, "slot switch --backup " + backup + " --accept " + accept);
        EXPECT_EQ(set.code, 0) << set.err;
    }

    // Every file below the lab's folder: what it is, holds, and when it was changed. Programs and libraries
    // are not read: they are many times larger than all that an appliance has.
    std::map<std::string, std::string> snapshot() const
    {
        std::map<std::string, std::string> files;
        const std::string product = (dir / "product/").string();
        for (const auto &entry : fs::recursive_directory_iterator(dir)) {
            struct stat status {};
            lstat(entry.path().c_str(), &status);
            std::string what = std::to_string(status.st_mode) + " " + std::to_string(status.st_mtim.tv_sec) + "." +
                               std::to_string(status.st_mtim.tv_nsec) + " ";
            if (S_ISREG(status.st_mode) && entry.path().string().rfind(product, 0) != 0) {
                what += read_file(entry.path());
            }
            files[entry.path()] = what;
        }
        return files;
    }

    fs::path home;
    fs::path dir;
};

}  // namespace test
