#include "bare_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

void require(bool holds, const char *what)
{
    if (!holds) {
        fprintf(stderr, "etcd_bench: %s\n", what);
        exit(1);
    }
}

namespace {

std::string frame(char type, char flags, unsigned stream, const std::string &body)
{
    std::string bytes;
    for (const unsigned shift : {16U, 8U, 0U}) {
        bytes.push_back(static_cast<char>(body.size() >> shift));
    }
    bytes += type;
    bytes += flags;
    for (const unsigned shift : {24U, 16U, 8U, 0U}) {
        bytes.push_back(static_cast<char>(stream >> shift));
    }
    return bytes + body;
}

std::string literal(const std::string &name, const std::string &value)
{
    return std::string(1, '\0') + static_cast<char>(name.size()) + name + static_cast<char>(value.size()) + value;
}

}  // namespace

BareSocket::BareSocket(const etcd::Endpoint &endpoint)
{
    struct sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(atoi(endpoint.port.c_str())));
    (void)inet_pton(AF_INET, endpoint.host.c_str(), &address.sin_addr);
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    require(connect(fd_, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) == 0, "no connection");
    const int at_once = 1;
    (void)setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof(at_once));
    const struct timeval longest {
        10, 0
    };
    (void)setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof(longest));
    send_all("PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + frame(4, 0, 0, std::string("\0\4\0\x40\0\0", 6)) +
             frame(8, 0, 0, std::string("\x40\0\0\0", 4)));
    headers_ = literal(":method", "POST") + literal(":scheme", "http") + literal(":authority", endpoint.text) +
               literal("content-type", "application/grpc") + literal("te", "trailers");
}

BareSocket::~BareSocket() { close(fd_); }

void BareSocket::call(const std::string &path, const std::string &message)
{
    stream_ += 2;
    std::string body(1, '\0');
    for (const unsigned shift : {24U, 16U, 8U, 0U}) {
        body.push_back(static_cast<char>(message.size() >> shift));
    }
    send_all(frame(1, 4, stream_, literal(":path", path) + headers_) + frame(0, 1, stream_, body + message));
    for (;;) {
        while (in_.size() < 9 || in_.size() < 9 + length()) {
            char piece[65536];
            const ssize_t size = recv(fd_, piece, sizeof(piece), 0);
            require(size > 0, "the connection ended");
            in_.append(piece, static_cast<std::size_t>(size));
        }
        const bool last = (in_[3] == 1 || in_[3] == 0) && (in_[4] & 1) != 0;
        if (in_[3] == 6 && in_[4] == 0) {
            send_all(frame(6, 1, 0, in_.substr(9, 8)));
        }
        if (in_[3] == 4 && in_[4] == 0) {
            send_all(frame(4, 1, 0, ""));
        }
        in_.erase(0, 9 + length());
        if (last) {
            return;
        }
    }
}

std::size_t BareSocket::length() const
{
    const auto byte = [this](std::size_t i) {
        return std::size_t{static_cast<unsigned char>(in_[i])};
    };
    return byte(0) << 16U | byte(1) << 8U | byte(2);
}

void BareSocket::send_all(const std::string &bytes)
{
    require(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size()), "no sending");
}
