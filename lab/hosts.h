// The hosts of a lab: a network of its own for each controller and for each member of the cluster, all on one bridge. A
// keeper process holds them; nothing of it is seen on the machine, and it all goes with the keeper.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace lab {

struct Host {
    std::string name;     // "cnt0", "member1"
    std::string address;  // 192.168.100.0/24
};

class Hosts {
public:
    explicit Hosts(const std::filesystem::path &lab) : folder_(lab / "hosts") {}

    // Whether the lab has hosts of its own.
    bool exist() const { return std::filesystem::exists(folder_); }

    // Makes the bridge and the networks, and returns when all are up. Throws Error.
    void start(const std::vector<Host> &hosts) const;

    // The process that keeps the networks, if it runs.
    std::optional<int> keeper() const;

    // Moves this process into a host's network, before it gets other namespaces. Throws Error.
    void enter(const std::string &host) const;

    // Pulls a host's cable, or puts it back. Throws Error.
    void set_link(const std::string &host, bool up) const;
    bool is_linked(const std::string &host) const;

private:
    std::filesystem::path keeper_file() const { return folder_ / "keeper"; }
    void enter_network(const std::string &name) const;

    std::filesystem::path folder_;
};

}  // namespace lab
