// What a library of this platform says of a cluster that keeps it from its work.
#pragma once

#include <string>

#include "cluster.h"

namespace etcd {

// Traces what keeps a library from its work, once until it is another thing, or until it has worked in between. Called
// without the library's gate: a fork takes that one and the trace log's in any order.
class Complaint {
public:
    explicit Complaint(const char *what) : what_(what) {}

    // In the gate: what came of a call, and whether it is to be told.
    bool is_new(int result, const Cluster &cluster);
    // Outside.
    void tell(int result, const std::string &why) const;

    const std::string &why() const { return why_; }

private:
    const char *what_;
    std::string why_;
    int result_ = 0;
};

}  // namespace etcd
