// A key-value store like etcd's, in memory: revisions, history, compaction, transactions and leases, as far as the
// platform asks for them. It takes the messages as they are on the wire. Any number of members serve one store.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "wire.h"

namespace test {

struct Stored {
    std::string value;
    std::int64_t create = 0;
    std::int64_t mod = 0;
    std::int64_t version = 0;
    std::int64_t lease = 0;
};

struct Answer {
    int status = 0;  // of gRPC
    std::string message;
    std::string body;
};

class StoreDouble {
public:
    // Carries a call out; method is the last part of its path.
    Answer serve(std::string_view method, std::string_view request);

    // For tests, beside the wire.
    std::string value(const std::string &key);
    std::vector<std::string> keys(const std::string &prefix);
    // What a key became after a revision, and what it was at one; nothing: removed, or not there.
    std::map<std::int64_t, std::optional<Stored>> changes_after(const std::string &key, std::int64_t revision);
    std::string value_at(const std::string &key, std::int64_t revision);
    void put(const std::string &key, const std::string &value);
    std::int64_t revision();
    void compact();
    // The same, and the memory goes too: for millions of calls.
    void forget_history();
    void end_leases();  // as if their time were over
    void fill(bool full = true) { full_ = full; }
    void set_in_use(std::int64_t bytes) { in_use_ = bytes; }
    int served(const std::string &method) { return served_[method]; }

private:
    Answer range(std::string_view request);
    Answer txn(std::string_view request);
    Answer lease(std::string_view method, std::string_view request);
    bool holds(std::string_view condition);
    std::string step(std::string_view text, std::int64_t revision, bool &changed);
    std::optional<std::string> found(std::string_view request);  // nothing: compacted
    std::optional<Stored> at(const std::string &key, std::int64_t revision);
    std::string header() const;

    std::mutex mutex_;
    std::int64_t revision_ = 1;
    std::int64_t compacted_ = 0;
    // Of each key what it was from each revision on; nothing: removed.
    std::map<std::string, std::map<std::int64_t, std::optional<Stored>>> history_;
    std::map<std::int64_t, std::int64_t> leases_;
    std::int64_t next_lease_ = 7000;
    bool full_ = false;
    std::int64_t in_use_ = 0;
    std::map<std::string, int> served_;
};

}  // namespace test
