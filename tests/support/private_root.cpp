#include "private_root.h"

#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

#include "private_namespace.h"
#include "sbin_view.h"

namespace test {
namespace {

namespace fs = std::filesystem;

constexpr const char *own_root = "/mnt";
constexpr const char *needed_etc[] = {"passwd",      "group",      "hosts",     "nsswitch.conf",
                                      "ld.so.cache", "ld.so.conf", "localtime", "alternatives"};
constexpr const char *appliance_folders[] = {"/etc/kesta_sys", "/opt/kesta_sys", "/tmp/kesta_sys",
                                             "/var/run/kesta_sys"};

void build_root()
{
    const fs::path root = own_root;
    if (mount("tmpfs", own_root, "tmpfs", 0, "mode=0755") != 0) {
        throw lab::Error(std::string("can't mount a tmpfs: ") + strerror(errno));
    }
    for (const char *name : {"etc", "opt", "run", "tmp", "host-sbin", "build", "source"}) {
        fs::create_directories(root / name);
    }
    for (const char *name : needed_etc) {
        std::error_code ignored;  // not every machine has all of them
        fs::copy(fs::path("/etc") / name, root / "etc" / name,
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks, ignored);
    }
    lab::make_sbin(root / "sbin", root / "host-sbin", {});
    lab::bind_all({{"/usr/sbin", (root / "host-sbin").string()}});
    // They may lie in one of the folders that get covered.
    const fs::path build = KESTA_BUILD_DIR;
    const fs::path source = KESTA_SOURCE_DIR;
    lab::bind_all({{build, (root / "build").string()}, {source, (root / "source").string()}});
    lab::bind_all({{(root / "sbin").string(), "/usr/sbin"},
                   {(root / "etc").string(), "/etc"},
                   {(root / "opt").string(), "/opt"},
                   {(root / "run").string(), "/run"},
                   {(root / "tmp").string(), "/tmp"}});
    for (const auto &[kept, folder] : {std::pair{root / "source", source}, std::pair{root / "build", build}}) {
        if (!fs::exists(folder)) {
            fs::create_directories(folder);
            lab::bind_all({{kept.string(), folder.string()}});
        }
    }
}

}  // namespace

void enter_private_root()
{
    try {
        lab::enter_private_namespaces();
        build_root();
    } catch (const std::exception &error) {
        std::cerr << "The tests need folders of their own: " << error.what() << "\n";
        exit(1);
    }
}

void clear_appliance_folders()
{
    for (const char *folder : appliance_folders) {
        std::error_code left;  // a test that ended early may have left a mount behind
        fs::remove_all(folder, left);
    }
    for (const char *folder :
         {"/etc/kesta_sys", "/opt/kesta_sys/bakup", "/tmp/kesta_sys/tmp", "/var/run/kesta_sys/tmp"}) {
        fs::create_directories(folder);
    }
}

void write_file(const std::string &path, const std::string &bytes)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream file(path, std::ios::binary);
    file << bytes;
}

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool exists(const std::string &path) { return fs::exists(path); }

unsigned mode_of(const std::string &path)
{
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

int mount_small(const std::string &folder, int bytes, bool read_only)
{
    const std::string options = "size=" + std::to_string(bytes);
    return mount("tmpfs", folder.c_str(), "tmpfs", read_only ? MS_RDONLY : 0, options.c_str());
}

void unmount(const std::string &folder) { (void)umount2(folder.c_str(), MNT_DETACH); }

}  // namespace test
