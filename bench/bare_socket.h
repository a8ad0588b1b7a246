// A member of an etcd cluster asked over a bare socket: what any client pays at the least.
#pragma once

#include <string>

#include "endpoint.h"

// One call after the other on a socket, and nothing else: no checks, no tables, no library.
class BareSocket {
public:
    explicit BareSocket(const etcd::Endpoint &endpoint);
    ~BareSocket();
    BareSocket(const BareSocket &) = delete;
    BareSocket &operator=(const BareSocket &) = delete;

    void call(const std::string &path, const std::string &message);

private:
    std::size_t length() const;
    void send_all(const std::string &bytes);

    int fd_ = -1;
    unsigned stream_ = static_cast<unsigned>(-1);
    std::string headers_;
    std::string in_;
};

// Ends the program where it does not hold.
void require(bool holds, const char *what);
