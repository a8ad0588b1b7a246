#include "sbin_view.h"

namespace lab {

namespace fs = std::filesystem;

void make_sbin(const fs::path &sbin, const fs::path &host_sbin,
               const std::vector<std::pair<std::string, fs::path>> &provided)
{
    fs::create_directories(sbin);
    for (const fs::directory_entry &entry : fs::directory_iterator("/usr/sbin")) {
        std::error_code error;
        const fs::path resolved = fs::canonical(entry.path(), error);
        const bool elsewhere = !error && resolved.parent_path() != "/usr/sbin";
        const fs::path name = entry.path().filename();
        fs::create_symlink(elsewhere ? resolved : host_sbin / name, sbin / name);
    }
    const auto provide = [&](const fs::path &name, const fs::path &target) {
        fs::remove(sbin / name);
        fs::create_symlink(target, sbin / name);
    };
    for (const auto &[name, target] : provided) {
        provide(name, target);
    }
    if (!fs::exists("/usr/sbin/tar")) {
        provide("tar", "/usr/bin/tar");
    }
}

}  // namespace lab
