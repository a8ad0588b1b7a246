// A key's version grows by one with each change, so the change that is looked for is told by its version. It is found
// by halving the revisions in between: a busy key has had thousands of changes by the time that somebody asks.
#include "history.h"

namespace etcd {

bool take_single(const RangeResponse &response, const std::string &key, KeyValue &found)
{
    found = {};
    found.key = key;
    if (response.found.empty()) {
        return true;
    }
    const KeyValue &first = response.found.front();
    if (response.found.size() > 1 || first.key != key || first.mod_revision <= 0 || first.version <= 0) {
        return false;
    }
    found = first;
    return true;
}

namespace {

int read_at(Client &client, const std::string &key, std::int64_t revision, const Allowed &allowed, KeyValue &found)
{
    RangeRequest request;
    request.key = key;
    request.revision = revision;
    RangeResponse response;
    const int error = client.range(request, response, allowed);
    if (error != 0) {
        return error;
    }
    return take_single(response, key, found) ? 0 : -EPROTO;
}

}  // namespace

History first_change(Client &client, const KeyValue &seen, const KeyValue &now, const Allowed &allowed,
                     KeyValue &change, int &error)
{
    const std::int64_t wanted = seen.version + 1;
    if (now.mod_revision == seen.mod_revision) {
        return History::unchanged;
    }
    if (now.mod_revision < seen.mod_revision || (seen.version != 0 && now.create_revision != seen.create_revision)) {
        return History::lost;
    }
    change = now;
    std::int64_t lowest = seen.mod_revision + 1;
    std::int64_t highest = now.mod_revision - 1;
    while (change.version != wanted && lowest <= highest) {
        const std::int64_t middle = lowest + (highest - lowest) / 2;
        error = read_at(client, seen.key, middle, allowed, change);
        if (error != 0) {
            return error == compacted ? History::lost : History::failed;
        }
        if (change.version > wanted) {
            highest = change.mod_revision - 1;
        } else {
            lowest = middle + 1;
        }
    }
    return change.version == wanted ? History::found : History::lost;
}

}  // namespace etcd
