// The members of a cluster, as the settings name them.
#pragma once

#include <sys/socket.h>

#include <string>
#include <string_view>
#include <vector>

namespace etcd {

struct Endpoint {
    std::string text;  // ADDRESS:PORT, as it was written
    std::string host;  // without the brackets of an IPv6 address
    std::string port;
    bool is_address = false;  // not a name
};

// ADDRESS:PORT, one or more, separated by commas; an IPv6 address in brackets. False: why says what is wrong, as a
// sentence's end ("member without a port").
bool parse_endpoints(std::string_view text, std::vector<Endpoint> &endpoints, std::string &why);

struct SocketAddress {
    struct sockaddr_storage storage {};
    socklen_t size = 0;
};

// Where an endpoint is. A name is looked up, in the time that this machine's resolver takes for it: addresses are to be
// preferred. False: it is unknown.
bool resolve(const Endpoint &endpoint, SocketAddress &address);

}  // namespace etcd
