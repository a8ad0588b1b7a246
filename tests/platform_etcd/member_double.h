// A member of a cluster of doubles: it speaks HTTP/2 at a port of this machine, and does to calls what a test wants.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "store_double.h"

namespace test {

enum class Fate {
    answered,
    lost,      // carried out; the connection ends without an answer
    dropped,   // not carried out; the connection ends
    unheard,   // not carried out, and no answer: the connection stays
    late,      // kept: carried out when the test says so, and never answered
    halved,    // carried out; half of the answer comes, then the end
    trickled,  // carried out; the answer comes byte by byte, then no more
    garbled,   // carried out; bytes that are no HTTP/2
    flooded,   // carried out; data without end
    misread,   // carried out; an answer that is no message
    refused,   // not carried out; with the status of the order
};

struct Order {
    std::string method;  // empty: any
    Fate fate = Fate::answered;
    int status = 14;
    std::string message = "etcdserver: not now";
    bool always = false;  // not the next such call alone
};

class MemberDouble {
public:
    explicit MemberDouble(StoreDouble &store);
    ~MemberDouble();
    MemberDouble(const MemberDouble &) = delete;
    MemberDouble &operator=(const MemberDouble &) = delete;

    std::string endpoint() const { return "127.0.0.1:" + std::to_string(port_); }

    // The next call that it fits meets it; orders are taken in the order in which they were given.
    void order(Order order);
    void heal();

    // Carries out what came late, in its order. How many calls these were.
    int release();
    int late();

    // What the fuzzer sends instead of any answer.
    void answer_raw(std::string bytes) { raw_ = std::move(bytes); }

    int connections() const { return connections_; }

private:
    struct Connection;
    friend struct Connection;

    void run();
    Order fate_of(const std::string &method);

    StoreDouble &store_;
    int listener_ = -1;
    int wake_[2] = {-1, -1};
    unsigned port_ = 0;
    std::atomic<int> connections_{0};
    std::mutex mutex_;
    std::deque<Order> orders_;
    std::vector<std::pair<std::string, std::string>> late_;
    std::string raw_;
    std::map<int, std::unique_ptr<Connection>> open_;
    std::thread thread_;
};

}  // namespace test
