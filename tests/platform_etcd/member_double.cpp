#include "member_double.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

namespace test {

MemberDouble::MemberDouble(StoreDouble &store) : store_(store)
{
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    struct sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    if (bind(listener_, reinterpret_cast<struct sockaddr *>(&address), size) != 0 || listen(listener_, 64) != 0 ||
        getsockname(listener_, reinterpret_cast<struct sockaddr *>(&address), &size) != 0 ||
        pipe2(wake_, O_CLOEXEC) != 0) {
        abort();
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
    started_.wait(false);
}

MemberDouble::~MemberDouble()
{
    close(wake_[1]);
    thread_.join();
    close(wake_[0]);
    close(listener_);
}

void MemberDouble::order(Order order)
{
    const std::lock_guard lock(mutex_);
    orders_.push_back(std::move(order));
}

void MemberDouble::clear_orders()
{
    const std::lock_guard lock(mutex_);
    orders_.clear();
}

void MemberDouble::heal()
{
    healing_ = true;
    (void)!write(wake_[1], "h", 1);
    healing_.wait(true);
}

// In its thread.
void MemberDouble::begin_anew()
{
    open_.clear();
    for (int fd; (fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
        close(fd);
    }
    clear_orders();
    healing_ = false;
    healing_.notify_all();
}

Order MemberDouble::fate_of(const std::string &method)
{
    const std::lock_guard lock(mutex_);
    for (auto each = orders_.begin(); each != orders_.end(); ++each) {
        if (each->method.empty() || each->method == method) {
            Order result = *each;
            if (!each->always) {
                orders_.erase(each);
            }
            return result;
        }
    }
    return {};
}

void MemberDouble::keep(const std::string &method, const std::string &request)
{
    const std::lock_guard lock(mutex_);
    late_.emplace_back(method, request);
}

int MemberDouble::late()
{
    const std::lock_guard lock(mutex_);
    return static_cast<int>(late_.size());
}

int MemberDouble::release()
{
    std::vector<std::pair<std::string, std::string>> calls;
    {
        const std::lock_guard lock(mutex_);
        calls.swap(late_);
    }
    for (const auto &[method, request] : calls) {
        (void)store_.serve(method, request);
    }
    return static_cast<int>(calls.size());
}

void MemberDouble::run()
{
    for (;;) {
        std::vector<struct pollfd> waiting{{wake_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
        for (const auto &[fd, connection] : open_) {
            waiting.push_back({fd, static_cast<short>(connection->wants_to_send() ? POLLIN | POLLOUT : POLLIN), 0});
        }
        if (!started_.exchange(true)) {
            started_.notify_all();
        }
        (void)poll(waiting.data(), waiting.size(), -1);
        if (char why; waiting[0].revents != 0) {
            if (read(wake_[0], &why, 1) <= 0) {
                open_.clear();
                return;
            }
            begin_anew();
            continue;
        }
        if (waiting[1].revents != 0) {
            const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (fd >= 0) {
                const int at_once = 1;
                (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof(at_once));
                ++connections_;
                open_[fd] = std::make_unique<MemberSession>(store_, *this, fd);
            }
        }
        for (std::size_t i = 2; i < waiting.size(); ++i) {
            MemberSession &connection = *open_[waiting[i].fd];
            const bool readable = (waiting[i].revents & (POLLIN | POLLHUP | POLLERR)) != 0;
            if (waiting[i].revents != 0 && ((readable && !connection.receive()) || !connection.send_out())) {
                open_.erase(waiting[i].fd);
            }
        }
    }
}

}  // namespace test
