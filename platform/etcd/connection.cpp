#include "connection.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <memory>

namespace etcd {
namespace {

constexpr std::size_t piece_size = 65536;
constexpr std::size_t longest_unread = std::size_t{1} << 23U;
// How long a member may take to say what it thinks of a certificate. It is waited for so that the refusal is heard: a
// call that crosses with it is answered by a reset, which takes the refusal away.
constexpr int verdict_ms = 100;

std::string error_text(int error)
{
    std::array<char, 128> text{};
    return strerror_r(error, text.data(), text.size());
}

}  // namespace

Connection::Connection(const Endpoint &endpoint, const TlsContext *tls) : grpc_(endpoint.text, tls != nullptr)
{
    if (tls) {
        tls_.emplace(*tls, endpoint.host, endpoint.is_address);
    }
}

std::string Connection::why() const { return tls_ && !tls_->why().empty() ? tls_->why() : why_; }

bool Connection::fail(std::string why)
{
    broken_ = true;
    if (why_.empty()) {
        why_ = std::move(why);
    }
    return false;
}

bool Connection::wait_for(short events, Deadline deadline)
{
    for (;;) {
        struct pollfd waiting {
            fd_->get(), events, 0
        };
        const int left = deadline.left_ms();
        const int ready = left > 0 ? poll(&waiting, 1, left) : 0;
        if (ready > 0) {
            return true;
        }
        if (ready == 0) {
            return fail("no answer in time");
        }
        if (errno != EINTR) {
            return fail(error_text(errno));
        }
    }
}

bool Connection::connect_to(const SocketAddress &address, Deadline deadline)
{
    fd_.emplace(socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!*fd_) {
        return fail(error_text(errno));
    }
    const int at_once = 1;
    (void)setsockopt(fd_->get(), IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof(at_once));  // slower without it
    if (connect(fd_->get(), reinterpret_cast<const struct sockaddr *>(&address.storage), address.size) == 0) {
        return true;
    }
    if (errno != EINPROGRESS) {
        return fail(error_text(errno));
    }
    if (!wait_for(POLLOUT, deadline)) {
        return false;
    }
    int error = 0;
    socklen_t size = sizeof(error);
    if (getsockopt(fd_->get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0) {
        return fail(error_text(error != 0 ? error : errno));
    }
    return true;
}

bool Connection::send_all(Deadline deadline)
{
    std::size_t done = 0;
    while (done < wire_.size()) {
        const ssize_t size = send(fd_->get(), wire_.data() + done, wire_.size() - done, MSG_NOSIGNAL);
        if (size >= 0) {
            done += static_cast<std::size_t>(size);
            sent_ = true;
        } else if (errno == EAGAIN) {
            // Both sides could wait for the other one to read: what comes meanwhile is taken.
            if (!wait_for(POLLIN | POLLOUT, deadline)) {
                return false;
            }
            if (receive() == Got::end) {
                return false;
            }
        } else if (errno != EINTR) {
            const int error = errno;
            if (receive() == Got::bytes && tls_) {
                (void)feed_received();  // for the reason, if the member has given one
            }
            return fail(error_text(error));
        }
    }
    wire_.clear();
    return true;
}

Connection::Got Connection::receive()
{
    const auto piece = std::make_unique_for_overwrite<char[]>(piece_size);
    for (;;) {
        const ssize_t size = recv(fd_->get(), piece.get(), piece_size, 0);
        if (size > 0) {
            received_.append(piece.get(), static_cast<std::size_t>(size));
            return received_.size() <= longest_unread || fail("a member sends without end") ? Got::bytes : Got::end;
        }
        if (size < 0 && errno == EAGAIN) {
            return Got::nothing;
        }
        if (size == 0 || errno != EINTR) {
            fail(size == 0 ? "the member has ended the connection" : error_text(errno));
            return Got::end;
        }
    }
}

// Hands what came to those who read it.
bool Connection::feed_received()
{
    std::string bytes;
    bytes.swap(received_);
    if (!tls_) {
        return grpc_.feed(bytes) || fail(grpc_.why());
    }
    std::string plain;
    const bool fed = tls_->feed(bytes, plain);
    if (!plain.empty() && !grpc_.feed(plain)) {
        return fail(grpc_.why());
    }
    return fed || fail("TLS ended");
}

// Makes what has to go ready to be sent.
bool Connection::drain()
{
    if (!tls_) {
        return grpc_.drain(wire_) || fail(grpc_.why());
    }
    std::string plain;
    if (!grpc_.drain(plain)) {
        return fail(grpc_.why());
    }
    return tls_->drain(plain, wire_) || fail("TLS ended");
}

bool Connection::shake_hands(Deadline deadline)
{
    while (!tls_->shaken()) {
        if (!tls_->drain({}, wire_) || !send_all(deadline)) {
            return fail("TLS ended");
        }
        if (tls_->shaken()) {
            break;
        }
        if (received_.empty() && (!wait_for(POLLIN, deadline) || receive() == Got::end)) {
            return false;
        }
        if (!received_.empty() && !feed_received()) {
            return false;
        }
    }
    return (tls_->drain({}, wire_) && send_all(deadline)) || fail("TLS ended");
}

bool Connection::hear_verdict(Deadline deadline)
{
    if (!tls_->verdict_follows()) {
        return true;
    }
    struct pollfd waiting {
        fd_->get(), POLLIN, 0
    };
    if (poll(&waiting, 1, std::min(deadline.left_ms(), verdict_ms)) <= 0) {
        return true;  // a member that has nothing to say
    }
    const Got got = receive();
    return got == Got::nothing || (got == Got::bytes && feed_received());
}

bool Connection::open(const SocketAddress &address, Deadline deadline)
{
    return connect_to(address, deadline) && (!tls_ || (shake_hands(deadline) && hear_verdict(deadline)));
}

bool Connection::usable()
{
    if (broken_ || !fd_) {
        return false;
    }
    const Got got = receive();
    return got == Got::nothing || (got == Got::bytes && feed_received());
}

const GrpcReply *Connection::call(const char *path, std::string_view message, std::size_t longest_answer,
                                  Deadline deadline)
{
    sent_ = false;
    if (broken_ || !grpc_.ask(path, message, longest_answer)) {
        fail(grpc_.why());
        return nullptr;
    }
    while (!grpc_.answered()) {
        if (!drain() || !send_all(deadline)) {
            return nullptr;
        }
        if (received_.empty() && !wait_for(POLLIN, deadline)) {
            return nullptr;
        }
        if (received_.empty() && receive() == Got::end) {
            return nullptr;
        }
        if (!received_.empty() && !feed_received()) {
            return nullptr;
        }
        // A member that goes on sending is not read beyond the time.
        if (!grpc_.answered() && deadline.passed()) {
            fail("no answer in time");
            return nullptr;
        }
    }
    return &grpc_.reply();
}

}  // namespace etcd
