// An appliance in a folder: what four controllers own and what they share.
//
//   DIR/lab.conf              marks the folder as a lab
//   DIR/cntN/{etc,opt,tmp,run,boot}   what only controller N sees, at /etc, /opt, /tmp, /run, /boot
//   DIR/shared                what all controllers share, as the platform's recipe says: NV memory, the system backup
//                             area, the status bytes of the controllers
//   DIR/product               the programs and libraries under test
//   DIR/sbin                  /usr/sbin as a controller sees it: with cpinfo, tar and so on
//   DIR/hosts, DIR/members    the hosts' networks, and the cluster's members, where each controller has its own host
//   DIR/bin                   what is laid over /usr/bin: rsh and rcp between the controllers
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "hosts.h"
#include "members.h"
#include "new_lab.h"

namespace lab {

// What is shared lies on a cluster then, and each controller and each member has a host of its own.
struct Cluster {
    int members = 3;
    std::uint64_t quota = 0;  // bytes of each member's store
};
inline constexpr const char *cluster_platform = "etcd";

class Appliance {
public:
    // An existing lab. Throws Error if the folder is none.
    explicit Appliance(const std::filesystem::path &folder);

    // Makes a new lab with the programs found beside this one, or under product, on the platform that is named; else on
    // the one that this program was built with.
    static Appliance create(const std::filesystem::path &folder, const std::filesystem::path &product,
                            const std::string &platform, const std::optional<Cluster> &cluster);

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

    // For practice. The networks and the members of a lab with hosts, started where they are off.
    void power_on() const;
    // Kills everything of a controller at once; of none in particular: of the whole lab.
    void cut_power(const std::optional<int> &controller) const;
    // Replaces a controller's board by a new one.
    void swap_board(int number) const;
    // Whether the disk that holds a controller's flash files takes nothing more.
    void set_full(int number, bool full) const;

    const Hosts &hosts() const { return hosts_; }
    const Members &members() const { return members_; }
    static std::string host_of(int number);  // the name of its host

private:
    std::filesystem::path full_marker(int number) const;
    void require_route(const std::string &own, const std::string &other) const;

    std::filesystem::path folder_;
    Hosts hosts_;
    Members members_;
};

// "CNT0" to "CNT3" (or "0" to "3"). Throws Error.
int controller_number(const std::string &name);

}  // namespace lab
