// The cluster that a library of this platform works on: made of the settings at first use, and its client from then on.
#pragma once

#include <optional>
#include <string>

#include "client.h"

namespace etcd {

// Of which store the members are.
enum class StoreOf { nv_memory, backup_area };

class Cluster {
public:
    explicit Cluster(StoreOf store) : store_(store) {}

    // Makes it ready: reads the settings once, and once for each process the layout of what is stored. Returns 0;
    // -EINVAL: a setting is wrong; -ENOTSUP: the keys are of another layout; or what the client returned.
    int prepare(bool writes);

    Client &client() { return *client_; }
    const std::string &prefix() const { return prefix_; }

    // What was last wrong, as a sentence.
    std::string problem() const;
    bool settings_wrong() const { return !wrong_.empty(); }

    // Called in a child made by fork.
    void forget_connection();

private:
    bool read_settings(ClusterSettings &settings);
    int check_layout(bool writes);

    const StoreOf store_;
    std::optional<Client> client_;
    std::string prefix_;
    std::string wrong_;
    bool layout_known_ = false;
};

}  // namespace etcd
