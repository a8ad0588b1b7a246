#include "endpoint.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "standard_descriptors.h"

namespace etcd {
namespace {

constexpr std::size_t most_endpoints = 16;
constexpr unsigned highest_port = 65535;

std::string_view trimmed(std::string_view text)
{
    const auto is_blank = [](char c) {
        return c == ' ' || c == '\t';
    };
    while (!text.empty() && is_blank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && is_blank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

bool is_port(std::string_view text)
{
    unsigned port = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), port);
    return parsed.ec == std::errc() && parsed.ptr == text.data() + text.size() && port > 0 && port <= highest_port;
}

bool is_address_text(const std::string &text)
{
    struct in6_addr address {};
    return inet_pton(AF_INET, text.c_str(), &address) == 1 || inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

bool is_name(const std::string &text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
               c == '_';
    });
}

bool parse_endpoint(std::string_view text, Endpoint &endpoint, std::string &why)
{
    endpoint.text = text;
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos || !is_port(text.substr(colon + 1))) {
        why = "\"" + endpoint.text + "\" is not of the form ADDRESS:PORT";
        return false;
    }
    std::string_view host = text.substr(0, colon);
    const bool bracketed = host.size() >= 2 && host.front() == '[' && host.back() == ']';
    if (bracketed) {
        host = host.substr(1, host.size() - 2);
    }
    endpoint.host = host;
    endpoint.port = text.substr(colon + 1);
    endpoint.is_address = is_address_text(endpoint.host);
    const bool is_v6 = host.find(':') != std::string_view::npos;
    if (is_v6 != bracketed || (!endpoint.is_address && !is_name(endpoint.host))) {
        why = "\"" + endpoint.text + "\" has neither an address nor a name (an IPv6 address stands in brackets)";
        return false;
    }
    return true;
}

}  // namespace

bool parse_endpoints(std::string_view text, std::vector<Endpoint> &endpoints, std::string &why)
{
    endpoints.clear();
    for (std::size_t at = 0; at <= text.size();) {
        const std::size_t comma = std::min(text.find(',', at), text.size());
        Endpoint endpoint;
        if (endpoints.size() == most_endpoints) {
            why = "there are more than 16 members";
            return false;
        }
        if (!parse_endpoint(trimmed(text.substr(at, comma - at)), endpoint, why)) {
            return false;
        }
        endpoints.push_back(endpoint);
        at = comma + 1;
    }
    return true;
}

bool resolve(const Endpoint &endpoint, SocketAddress &address)
{
    const kesta::StandardDescriptorsTaken taken;  // the resolver opens files and sockets of its own
    struct addrinfo wanted {};
    wanted.ai_socktype = SOCK_STREAM;
    wanted.ai_flags = AI_NUMERICSERV | (endpoint.is_address ? AI_NUMERICHOST : 0);
    struct addrinfo *found = nullptr;
    if (getaddrinfo(endpoint.host.c_str(), endpoint.port.c_str(), &wanted, &found) != 0) {
        return false;
    }
    address.size = found->ai_addrlen;
    std::memcpy(&address.storage, found->ai_addr, found->ai_addrlen);
    freeaddrinfo(found);
    return true;
}

}  // namespace etcd
