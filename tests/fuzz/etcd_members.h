// Members of a cluster that do to each call what the input says, for a client in the same thread: whenever it waits they
// are served, and where they are silent its time passes at once.
#pragma once

#include <poll.h>

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "member_session.h"

namespace fuzz {

// The bytes of the input, one after the other; zeros once they are over.
class Choices {
public:
    explicit Choices(std::string_view bytes) : left_(bytes) {}

    bool over() const { return left_.empty(); }
    unsigned next();
    std::string take(std::size_t most);

private:
    std::string_view left_;
};

class EtcdMembers : public test::Fates {
public:
    explicit EtcdMembers(Choices &choices);
    ~EtcdMembers() override;
    EtcdMembers(const EtcdMembers &) = delete;
    EtcdMembers &operator=(const EtcdMembers &) = delete;

    test::StoreDouble store;
    // What somebody else does between two calls.
    std::function<void(unsigned)> somebody_else = [](unsigned) {
    };

    // From now on all calls are answered well.
    void heal() { healed_ = true; }
    // Carries out what came late.
    void release();
    // A member has said what it has not done, or what is not so.
    bool lied() const { return lied_; }
    // How often the client waited: none waits without end.
    unsigned long waits() const { return waits_; }

    // Called in the place of the system's.
    int connect_client(int fd);
    int wait(struct pollfd *waiting, unsigned long count, int timeout_ms);

private:
    test::Order fate_of(const std::string &method) override;
    void keep(const std::string &method, const std::string &request) override;
    bool serve();

    Choices &choices_;
    std::vector<std::unique_ptr<test::MemberSession>> sessions_;
    std::vector<std::pair<std::string, std::string>> late_;
    std::set<int> hanging_;  // descriptors whose connection is never made
    int slow_ms_ = 0;        // that the next answer takes
    bool healed_ = false;
    bool lied_ = false;
    unsigned long waits_ = 0;
};

// The client's time.
std::int64_t virtual_ms();
void let_time_pass(std::int64_t ms);

}  // namespace fuzz
