#include "etcd_members.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "contract.h"

namespace {

constexpr std::int64_t tick_ns = 1000;         // what a look at the clock takes
constexpr std::int64_t wait_ns = 100'000;      // an answer that is there
constexpr std::int64_t flood_ns = 50'000'000;  // what is read of one without end, before the next look at the clock
constexpr unsigned long most_waits = 100'000;

std::int64_t now_ns = 0;
std::uint64_t next_random = 0;
fuzz::EtcdMembers *members;

}  // namespace

// What the client asks the system for; the members, and the fuzzer, have the system's own.
extern "C" {
int __real_clock_gettime(clockid_t clock, struct timespec *now);
int __real_poll(struct pollfd *waiting, nfds_t count, int timeout_ms);
int __real_connect(int fd, const struct sockaddr *address, socklen_t size);
ssize_t __real_getrandom(void *bytes, size_t size, unsigned flags);

int __wrap_clock_gettime(clockid_t clock, struct timespec *now)
{
    if (!members || clock != CLOCK_MONOTONIC) {
        return __real_clock_gettime(clock, now);
    }
    now_ns += tick_ns;
    now->tv_sec = now_ns / 1'000'000'000;
    now->tv_nsec = now_ns % 1'000'000'000;
    return 0;
}

int __wrap_poll(struct pollfd *waiting, nfds_t count, int timeout_ms)
{
    return members ? members->wait(waiting, count, timeout_ms) : __real_poll(waiting, count, timeout_ms);
}

int __wrap_connect(int fd, const struct sockaddr *address, socklen_t size)
{
    return members ? members->connect_client(fd) : __real_connect(fd, address, size);
}

ssize_t __wrap_getrandom(void *bytes, size_t size, unsigned flags)
{
    if (!members || size != sizeof(next_random)) {
        return __real_getrandom(bytes, size, flags);
    }
    ++next_random;
    memcpy(bytes, &next_random, size);
    return static_cast<ssize_t>(size);
}
}

namespace fuzz {

using test::Fate;
using test::Order;

std::int64_t virtual_ms() { return now_ns / 1'000'000; }
void let_time_pass(std::int64_t ms) { now_ns += ms * 1'000'000; }

unsigned Choices::next()
{
    if (left_.empty()) {
        return 0;
    }
    const auto byte = static_cast<unsigned char>(left_.front());
    left_.remove_prefix(1);
    return byte;
}

std::string Choices::take(std::size_t most)
{
    std::string bytes(left_.substr(0, most));
    left_.remove_prefix(bytes.size());
    return bytes;
}

EtcdMembers::EtcdMembers(Choices &choices) : choices_(choices)
{
    now_ns = 1'000'000'000;
    next_random = 0;
    members = this;
}

EtcdMembers::~EtcdMembers() { members = nullptr; }

void EtcdMembers::keep(const std::string &method, const std::string &request) { late_.emplace_back(method, request); }

void EtcdMembers::release()
{
    for (const auto &[method, request] : std::exchange(late_, {})) {
        (void)store.serve(method, request);
    }
}

namespace {

struct Refusal {
    int status;
    const char *message;
};

// Those that members are known for, and some that they are not.
constexpr std::array<Refusal, 16> refusals{{
    {14, "etcdserver: leader changed"},
    {14, "etcdserver: request timed out"},
    {4, "context deadline exceeded"},
    {2, "etcdserver: something \x1b[31m with colours, \x80 and \n lines"},
    {13, ""},
    {8, "etcdserver: too many requests"},
    {8, "etcdserver: mvcc: database space exceeded"},
    {7, "etcdserver: permission denied"},
    {16, "etcdserver: invalid auth token"},
    {3, "etcdserver: user name is empty"},
    {3, "etcdserver: revision of auth store is old"},
    {3, "etcdserver: request is too large"},
    {5, "etcdserver: requested lease not found"},
    {11, "etcdserver: mvcc: required revision has been compacted"},
    {12, "unknown method"},
    {99, "no such status"},
}};
constexpr unsigned unsure_refusals = 5;  // the first ones: of calls that may have been carried out

}  // namespace

Order EtcdMembers::fate_of(const std::string & /*method*/)
{
    Order order;
    if (healed_) {
        return order;
    }
    constexpr std::array<Fate, 12> plain{Fate::answered, Fate::lost,    Fate::dropped,  Fate::unheard,
                                         Fate::late,     Fate::halved,  Fate::trickled, Fate::garbled,
                                         Fate::flooded,  Fate::misread, Fate::refused,  Fate::denied};
    const unsigned choice = choices_.next() % 32;
    if (choice < plain.size()) {
        order.fate = plain[choice];
        if (order.fate == Fate::halved || order.fate == Fate::trickled) {
            order.missing = choices_.next();
        } else if (order.fate == Fate::refused || order.fate == Fate::denied) {
            const unsigned kinds = order.fate == Fate::denied ? unsure_refusals : refusals.size();
            const Refusal &refusal = refusals[choices_.next() % kinds];
            order.status = refusal.status;
            order.message = refusal.message;
        }
    } else if (choice == 12) {
        release();
    } else if (choice == 13) {
        somebody_else(choices_.next());
    } else if (choice == 14) {
        slow_ms_ = static_cast<int>(choices_.next()) * 10;
    } else if (choice == 15 || choice == 16) {
        lied_ = true;
        order.fate = choice == 15 ? Fate::misread : Fate::garbled;
        order.bytes = choices_.take(choices_.next());
    }
    return order;
}

int EtcdMembers::connect_client(int fd)
{
    hanging_.erase(fd);
    const unsigned choice = healed_ ? 0 : choices_.next() % 32;
    if (choice == 1) {
        errno = ECONNREFUSED;
        return -1;
    }
    std::array<int, 2> ends{};
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) == 0 &&
                dup3(ends[0], fd, O_CLOEXEC) == fd,
            "no socket");
    close(ends[0]);
    if (choice == 2 || choice == 3) {  // nobody is there, or goes at once
        close(ends[1]);
    } else {
        sessions_.push_back(std::make_unique<test::MemberSession>(store, *this, ends[1]));
    }
    if (choice == 2) {
        hanging_.insert(fd);
    }
    if (choice == 2 || choice == 4) {
        errno = EINPROGRESS;
        return -1;
    }
    return 0;
}

bool EtcdMembers::serve()
{
    bool floods = false;
    for (std::size_t i = 0; i < sessions_.size();) {
        const bool goes_on = sessions_[i]->receive() && sessions_[i]->send_out();
        if (goes_on) {
            floods = floods || sessions_[i]->floods();
            ++i;
        } else {
            sessions_.erase(sessions_.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
    return floods;
}

int EtcdMembers::wait(struct pollfd *waiting, unsigned long count, int timeout_ms)
{
    require(++waits_ < most_waits, "a wait that does not end");
    require(timeout_ms >= 0, "a wait without a limit");
    if (count == 1 && hanging_.count(waiting->fd) == 0) {
        // What is large comes in several pieces.
        for (int i = 0; i < 4; ++i) {
            const bool floods = serve();
            if (const int ready = __real_poll(waiting, count, 0); ready != 0) {
                const int took_ms = std::exchange(slow_ms_, 0);
                if (took_ms >= timeout_ms) {
                    break;
                }
                let_time_pass(took_ms);
                now_ns += floods ? flood_ns : wait_ns;
                return ready;
            }
        }
    }
    let_time_pass(timeout_ms);
    return 0;
}

}  // namespace fuzz
