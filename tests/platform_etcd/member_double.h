// A member of a cluster of doubles: it speaks HTTP/2 at a port of this machine, and does to calls what a test wants.
#pragma once

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "member_session.h"

namespace test {

class MemberDouble : public Fates {
public:
    // Its thread is idle afterwards. A test may fork then: a thread that is just starting may hold what the
    // sanitizer's allocator needs in the child, which nobody would let go of there.
    explicit MemberDouble(StoreDouble &store);
    ~MemberDouble() override;
    MemberDouble(const MemberDouble &) = delete;
    MemberDouble &operator=(const MemberDouble &) = delete;

    std::string endpoint() const { return "127.0.0.1:" + std::to_string(port_); }

    // The next call that it fits meets it; orders are taken in the order in which they were given.
    void order(Order order);
    void clear_orders();

    // The same, and ends its connections: a call that is still on its way, since who made it has given it up, meets
    // nobody any more.
    void heal();

    // Carries out what came late, in its order. How many calls these were.
    int release();
    int late();

    int connections() const { return connections_; }

private:
    void run();
    void begin_anew();
    Order fate_of(const std::string &method) override;
    void keep(const std::string &method, const std::string &request) override;

    StoreDouble &store_;
    int listener_ = -1;
    int wake_[2] = {-1, -1};
    unsigned port_ = 0;
    std::atomic<int> connections_{0};
    std::atomic<bool> started_{false};
    std::atomic<bool> healing_{false};
    std::mutex mutex_;
    std::deque<Order> orders_;
    std::vector<std::pair<std::string, std::string>> late_;
    std::map<int, std::unique_ptr<MemberSession>> open_;
    std::thread thread_;
};

}  // namespace test
