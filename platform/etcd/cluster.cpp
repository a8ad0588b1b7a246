#include "cluster.h"

#include <errno.h>

#include <algorithm>

#include "history.h"
#include "settings.h"

namespace etcd {
namespace {

constexpr const char *layout = "1";
constexpr std::size_t longest_prefix = 200;

// A prefix ends a name, and stands at the beginning of all keys.
bool is_prefix(const std::string &text)
{
    return text.size() >= 3 && text.size() <= longest_prefix && text.front() == '/' && text.back() == '/' &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
}

}  // namespace

bool Cluster::read_settings(ClusterSettings &settings)
{
    const platform::Settings &given = platform::settings();
    const bool own = store_ == StoreOf::backup_area && given.sysback_endpoints[0] != '\0';
    const char *key = own ? "sysback_endpoints" : "nv_endpoints";
    const char *members = own ? given.sysback_endpoints : given.nv_endpoints;
    std::string why;
    if (members[0] == '\0') {
        wrong_ = "nv_endpoints is not set: name the members of the cluster as ADDRESS:PORT, separated by commas";
        return false;
    }
    if (!parse_endpoints(members, settings.endpoints, why)) {
        wrong_ = std::string(key) + " can't be used: " + why;
        return false;
    }
    prefix_ = given.etcd_prefix;
    if (!is_prefix(prefix_)) {
        wrong_ = "etcd_prefix can't be used: it begins and ends with a slash, and has a name in between";
        return false;
    }
    settings.tls_ca = given.tls_ca;
    settings.tls_cert = given.tls_cert;
    settings.tls_key = given.tls_key;
    if (settings.tls_ca.empty() != settings.tls_cert.empty() || settings.tls_ca.empty() != settings.tls_key.empty()) {
        wrong_ = "tls_ca, tls_cert and tls_key are to be set all three, or none of them";
        return false;
    }
    settings.times.connect_ms = given.connect_ms;
    settings.times.request_ms = given.request_ms;
    settings.times.transfer_ms = given.transfer_ms;
    settings.times.chunk_ms = given.chunk_ms;
    return true;
}

int Cluster::check_layout(bool writes)
{
    const std::string key = prefix_ + "layout";
    TxnRequest request;
    request.conditions = {{key, Condition::Of::made_at, 0}};
    if (writes) {
        request.then = {{std::nullopt, PutRequest{key, layout, 0}, std::nullopt}};
    }
    request.otherwise = {{RangeRequest{key, "", 0, 0, false}, std::nullopt, std::nullopt}};
    TxnResponse response;
    bool maybe = false;  // whoever writes it first, it is the same
    if (const int error = client_->txn(request, response, client_->allow_transfer(), maybe); error != 0) {
        return error;
    }
    layout_known_ = writes;
    if (response.held) {
        return 0;
    }
    KeyValue found;
    if (response.ranges.size() != 1 || !take_single(response.ranges[0], key, found)) {
        return -EIO;
    }
    layout_known_ = found.value == layout;
    if (!layout_known_) {
        wrong_ = key + " has another layout than 1: this platform is older than what is stored there";
        return -ENOTSUP;
    }
    return 0;
}

int Cluster::prepare(bool writes)
{
    if (!client_) {
        ClusterSettings settings;
        if (!read_settings(settings)) {
            return -EINVAL;
        }
        client_.emplace(std::move(settings));
    }
    return layout_known_ ? 0 : check_layout(writes);
}

std::string Cluster::problem() const { return !wrong_.empty() || !client_ ? wrong_ : client_->problem(); }

void Cluster::forget_connection()
{
    if (client_) {
        client_->forget_connection();
    }
}

}  // namespace etcd
