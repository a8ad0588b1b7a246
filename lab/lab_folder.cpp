#include "lab_folder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "private_namespace.h"
#include "text_file.h"

namespace lab {
namespace {

namespace fs = std::filesystem;

constexpr const char *marker_name = "lab.conf";
constexpr const char *marker_text = "kesta-lab 1\n";

bool is_of_ours(const struct stat &status)
{
    // In a namespace of a user without rights the machine's root is nobody there, and the root folder's owner.
    struct stat root;
    return status.st_uid == geteuid() || status.st_uid == 0 || (stat("/", &root) == 0 && status.st_uid == root.st_uid);
}

// Nobody else writes in a lab, and not everybody can put another folder in its place. In a folder where everybody writes,
// as /tmp, only the owner of a name can change it. Who has a folder of somebody else's for a lab trusts him with it.
void require_own(const fs::path &lab)
{
    struct stat status;
    const auto require = [](const fs::path &path, bool good, const char *what) {
        if (!good) {
            throw Error(path.string() + what + ": programs of that lab would run as you");
        }
    };
    constexpr const char *others = " belongs to somebody else";
    constexpr const char *writable = " can be written to by others";
    require(lab, lstat(lab.c_str(), &status) == 0 && is_of_ours(status), others);
    require(lab, (status.st_mode & (S_IWGRP | S_IWOTH)) == 0, writable);
    const fs::path marker = lab / marker_name;
    require(marker, lstat(marker.c_str(), &status) == 0 && S_ISREG(status.st_mode) && is_of_ours(status), others);
    require(marker, status.st_nlink == 1, " is a second name of a file");  // of ours, and given by anybody
    // A controller sees the lab in folders of its own, which nobody outside reaches.
    for (fs::path above = lab; above.has_relative_path() && !is_inside();) {
        above = above.parent_path();
        require(above,
                stat(above.c_str(), &status) == 0 &&
                    ((status.st_mode & S_IWOTH) == 0 || (status.st_mode & S_ISVTX) != 0),
                writable);
    }
}

}  // namespace

bool is_inside() { return getenv(controller_variable) != nullptr; }

bool is_trusted(const fs::path &path)
{
    struct stat status;
    return lstat(path.c_str(), &status) == 0 && !S_ISLNK(status.st_mode) && is_of_ours(status);
}

bool has_marker(const fs::path &folder)
{
    struct stat status;
    return lstat((folder / marker_name).c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

void set_marker(const fs::path &folder) { write_file(folder / marker_name, marker_text); }

void require_lab(const fs::path &folder)
{
    if (has_marker(folder)) {
        require_own(folder);
    }
    if (!has_marker(folder) || read_file(folder / marker_name) != marker_text) {
        throw Error(folder.string() + " is no lab: make one with kesta-lab create DIR");
    }
}

}  // namespace lab
