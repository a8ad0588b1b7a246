// What a new lab is made of.
#pragma once

#include <array>
#include <filesystem>
#include <string>

#include "recipe.h"

namespace lab {

inline constexpr int controllers = 4;

// Where a controller finds what belongs to the lab.
inline constexpr const char *platform_folder = "/opt/kesta_platform";

// What every controller has of its own, and where it sees it.
struct OwnFolder {
    const char *name;
    const char *target;
};
inline constexpr std::array<OwnFolder, 5> own_folders{{
    {"etc", "/etc"},
    {"opt", "/opt"},
    {"run", "/run"},
    {"boot", "/boot"},
    {"tmp", "/tmp"},
}};

// Where other controllers reach this one, in a lab with hosts.
std::string address_of(int number);

class NewLab {
public:
    // With the programs found beside this one, or under product. Throws Error: the platform has no recipe there.
    NewLab(const std::filesystem::path &folder, const std::filesystem::path &product, const std::string &platform);

    // Makes all but the controllers. Throws Error.
    void make_common() const;
    // The cluster: the setting that names its members, or empty. Throws Error.
    void make_controller(int number, const std::string &cluster) const;

private:
    std::filesystem::path folder_;
    std::filesystem::path product_;
    std::string platform_;
    std::filesystem::path recipe_file_;
    Recipe recipe_;
};

}  // namespace lab
