// The cluster of a lab with hosts: members of etcd, each on a host of its own.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "hosts.h"

namespace lab {

inline constexpr const char *folder_variable = "KESTA_LAB_DIR";  // tells the processes of a lab from all others

struct MemberState {
    int number;
    std::optional<int> pid;  // nothing: it doesn't run
    bool hangs = false;
    bool leads = false;
};

class Members {
public:
    // The processes of one lab, by its folder.
    Members(const std::filesystem::path &lab, const Hosts &hosts) : lab_(lab), hosts_(hosts) {}

    // How many there are, by their folders.
    int count() const;
    // Makes their folders. The quota is the size of each member's store.
    void create(int count, std::uint64_t quota) const;
    std::vector<Host> hosts() const;
    std::string endpoints() const;  // "ADDRESS:PORT,..."
    std::string settings() const;   // a controller's, for this cluster; nothing: there is none

    // Starts those that don't run, lets those go on that hang, and returns when all serve; or after a time, with false:
    // too few run for that.
    bool start_all() const;
    bool start(int number) const;
    void kill(int number) const;
    void stop(int number) const;  // it hangs, as after a signal STOP
    std::vector<MemberState> states() const;
    // "0", "1"..., or "leader". Throws Error.
    int number_of(const std::string &name) const;

    // Fills the cluster's store until it takes nothing more, and empties it again. Throws Error.
    void fill() const;
    void make_room() const;

private:
    std::filesystem::path folder(int number) const { return lab_ / "members" / std::to_string(number); }
    std::optional<int> pid_of(int number) const;
    void start_process(int number) const;
    bool await_service(int number, std::size_t from) const;
    std::vector<std::string> control(const std::vector<std::string> &words) const;

    std::filesystem::path lab_;
    Hosts hosts_;
};

}  // namespace lab
