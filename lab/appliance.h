// An appliance in a folder: what four controllers own and what they share.
//
//   DIR/lab.conf              marks the folder as a lab
//   DIR/cntN/{etc,opt,tmp,run,boot}   what only controller N sees, at /etc, /opt, /tmp, /run, /boot
//   DIR/shared                what all controllers share, as the platform's recipe says: NV memory, the system backup
//                             area, the status bytes of the controllers
//   DIR/product               the programs and libraries under test
//   DIR/sbin                  /usr/sbin as a controller sees it: with cpinfo, tar and so on
//   DIR/bin                   what is laid over /usr/bin: rsh and rcp between the controllers
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace lab {

inline constexpr int controllers = 4;

// Where a controller finds what belongs to the lab.
inline constexpr const char *platform_folder = "/opt/kesta_platform";

class Appliance {
public:
    // An existing lab. Throws Error if the folder is none.
    explicit Appliance(const std::filesystem::path &folder);

    // Makes a new lab with the programs found beside this one, or under product, on the platform that is named; else on
    // the one that this program was built with.
    static Appliance create(const std::filesystem::path &folder, const std::filesystem::path &product,
                            const std::string &platform);

    // The lab of --dir, of $KESTA_LAB, or of the current folder or one above it.
    static Appliance find(const std::string &option);

    const std::filesystem::path &folder() const { return folder_; }
    std::filesystem::path controller_folder(int number) const;

    // Moves this process into a controller. Throws Error.
    void enter(int number, const std::vector<std::string> &extra_binds) const;

    // Processes that were started in the lab and still run.
    std::vector<int> processes() const;

    // Ends them, and removes the folder.
    void destroy() const;

private:
    std::filesystem::path folder_;
};

// "CNT0" to "CNT3" (or "0" to "3"). Throws Error.
int controller_number(const std::string &name);

}  // namespace lab
