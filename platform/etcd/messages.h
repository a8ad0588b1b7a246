// The messages of etcd's key-value interface that the platform exchanges, as records. Those that ask can be encoded,
// those that answer decoded: from anything at all, in time and room of the size of the text.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace etcd {

struct KeyValue {
    std::string key;
    std::string value;
    std::int64_t create_revision = 0;
    std::int64_t mod_revision = 0;
    std::int64_t version = 0;  // of the key: 1 when it was made, one more with each change
};

struct RangeRequest {
    std::string key;
    std::string end;  // empty: the key alone; else all keys from key up to end, which is not among them
    std::int64_t limit = 0;
    std::int64_t revision = 0;  // 0: as it is now
    bool keys_only = false;
};

struct RangeResponse {
    std::int64_t revision = 0;  // of the store, when it answered
    std::vector<KeyValue> found;
    bool more = false;
};

struct PutRequest {
    std::string key;
    std::string value;
    std::int64_t lease = 0;
};

struct DeleteRequest {
    std::string key;
    std::string end;
};

// One step of a transaction. Exactly one member is set.
struct Step {
    std::optional<RangeRequest> range;
    std::optional<PutRequest> put;
    std::optional<DeleteRequest> erase;
};

// Holds if the key was changed last, or made, at this revision; 0: if there is no such key.
struct Condition {
    enum class Of { made_at, changed_at };
    std::string key;
    Of of = Of::changed_at;
    std::int64_t revision = 0;
};

// If all conditions hold the first steps are taken, else the others: all at once, or none.
struct TxnRequest {
    std::vector<Condition> conditions;
    std::vector<Step> then;
    std::vector<Step> otherwise;
};

struct TxnResponse {
    std::int64_t revision = 0;
    bool held = false;                  // the conditions did
    std::vector<RangeResponse> ranges;  // what the steps taken found, in their order
};

struct LeaseRequest {
    std::int64_t id = 0;       // to revoke, or to keep alive
    std::int64_t seconds = 0;  // to grant
};

struct LeaseResponse {
    std::int64_t id = 0;
    std::int64_t seconds = 0;  // 0: there is none such any more
    std::string error;
};

struct CompactRequest {
    std::int64_t revision = 0;
};

struct StatusResponse {
    std::int64_t bytes_in_use = 0;
    std::int64_t bytes = 0;
    std::uint64_t leader = 0;
};

std::string encode(const RangeRequest &request);
std::string encode(const PutRequest &request);
std::string encode(const DeleteRequest &request);
std::string encode(const TxnRequest &request);
std::string encode(const CompactRequest &request);
std::string encode_grant(const LeaseRequest &request);
std::string encode_lease_id(const LeaseRequest &request);  // of revoking and keeping alive

// False: the text is no such message. What has been read of it until then is in the record.
bool decode(std::string_view text, RangeResponse &response);
bool decode(std::string_view text, TxnResponse &response);
bool decode(std::string_view text, LeaseResponse &response);
bool decode(std::string_view text, StatusResponse &response);

// The end of a range of all keys that begin with a prefix.
std::string end_of_prefix(std::string prefix);

}  // namespace etcd
