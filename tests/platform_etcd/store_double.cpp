#include "store_double.h"

#include <algorithm>
#include <iterator>

namespace test {
namespace {

using etcd::WireReader;
using etcd::WireWriter;

constexpr int invalid = 3;
constexpr int not_found = 5;
constexpr int exhausted = 8;
constexpr int out_of_range = 11;
constexpr int unimplemented = 12;

std::vector<WireReader::Field> fields_of(std::string_view text)
{
    std::vector<WireReader::Field> fields;
    WireReader from(text);
    for (WireReader::Field field; from.next(field);) {
        fields.push_back(field);
    }
    return fields;
}

// The last field of a number; the platform sends each once.
WireReader::Field field_of(std::string_view text, unsigned number)
{
    WireReader::Field result;
    for (const auto &field : fields_of(text)) {
        if (field.number == number) {
            result = field;
        }
    }
    return result;
}

std::int64_t number_of(std::string_view text, unsigned number)
{
    return static_cast<std::int64_t>(field_of(text, number).value);
}
std::string text_of(std::string_view text, unsigned number) { return std::string(field_of(text, number).bytes); }

std::uint64_t raw(std::int64_t number) { return static_cast<std::uint64_t>(number); }

std::string encode(const std::string &key, const Stored &stored, bool keys_only)
{
    WireWriter to;
    to.bytes(1, key);
    to.number(2, raw(stored.create));
    to.number(3, raw(stored.mod));
    to.number(4, raw(stored.version));
    to.bytes(5, keys_only ? "" : stored.value);
    to.number(6, raw(stored.lease));
    return to.text();
}

}  // namespace

std::string StoreDouble::header() const
{
    WireWriter to;
    to.number(1, 0xC1);
    to.number(2, 0x01);
    to.number(3, raw(revision_));
    return to.text();
}

std::optional<Stored> StoreDouble::at(const std::string &key, std::int64_t revision)
{
    const auto &changes = history_[key];
    auto after = changes.upper_bound(revision);
    return after == changes.begin() ? std::nullopt : std::prev(after)->second;
}

std::optional<std::string> StoreDouble::found(std::string_view request)
{
    const std::string key = text_of(request, 1);
    const std::string end = text_of(request, 2);
    const std::int64_t limit = number_of(request, 3);
    const std::int64_t asked = number_of(request, 4);
    const bool keys_only = number_of(request, 8) != 0;
    if (asked != 0 && asked < compacted_) {
        return std::nullopt;
    }
    WireWriter to;
    to.bytes(1, header());
    std::int64_t count = 0;
    std::vector<std::string> keys;
    for (const auto &[name, changes] : history_) {
        if (end.empty() ? name == key : name >= key && (end == std::string(1, '\0') || name < end)) {
            keys.push_back(name);
        }
    }
    for (const std::string &name : keys) {
        if (const auto stored = at(name, asked != 0 ? asked : revision_)) {
            if (limit == 0 || count < limit) {
                to.chosen_bytes(2, encode(name, *stored, keys_only));
            }
            ++count;
        }
    }
    to.number(3, limit != 0 && count > limit ? 1 : 0);
    to.number(4, raw(count));
    return to.text();
}

Answer StoreDouble::range(std::string_view request)
{
    const auto body = found(request);
    if (!body) {
        return {out_of_range, "etcdserver: mvcc: required revision has been compacted", ""};
    }
    return {0, "", *body};
}

bool StoreDouble::holds(std::string_view condition)
{
    const auto stored = at(text_of(condition, 3), revision_);
    const std::int64_t target = number_of(condition, 2);
    if (target == 1) {
        return (stored ? stored->create : 0) == number_of(condition, 5);
    }
    return (stored ? stored->mod : 0) == number_of(condition, 6);
}

// Takes one step of a transaction, at the revision that it makes.
std::string StoreDouble::step(std::string_view text, std::int64_t revision, bool &changed)
{
    WireWriter to;
    for (const auto &field : fields_of(text)) {
        if (field.number == 1) {
            to.chosen_bytes(1, found(field.bytes).value_or(""));
        } else if (field.number == 2) {
            const std::string key = text_of(field.bytes, 1);
            Stored now = at(key, revision).value_or(Stored{"", revision, 0, 0, 0});
            now.value = text_of(field.bytes, 2);
            now.mod = revision;
            now.lease = number_of(field.bytes, 3);
            ++now.version;
            history_[key][revision] = now;
            changed = true;
            to.chosen_bytes(2, "");
        } else if (field.number == 3) {
            const std::string key = text_of(field.bytes, 1);
            const std::string end = text_of(field.bytes, 2);
            for (auto &[name, changes] : history_) {
                if ((end.empty() ? name == key : name >= key && name < end) && at(name, revision)) {
                    changes[revision] = std::nullopt;
                    changed = true;
                }
            }
            to.chosen_bytes(3, "");
        }
    }
    return to.text();
}

Answer StoreDouble::txn(std::string_view request)
{
    bool held = true;
    bool writes = false;
    for (const auto &field : fields_of(request)) {
        held = held && (field.number != 1 || holds(field.bytes));
    }
    const unsigned taken = held ? 2 : 3;
    for (const auto &field : fields_of(request)) {
        writes = writes || (field.number == taken && !field_of(field.bytes, 2).bytes.empty());
    }
    if (full_ && writes) {
        return {exhausted, "etcdserver: mvcc: database space exceeded", ""};
    }
    bool changed = false;
    std::vector<std::string> results;
    for (const auto &field : fields_of(request)) {
        if (field.number == taken) {
            results.push_back(step(field.bytes, revision_ + 1, changed));
        }
    }
    revision_ += changed ? 1 : 0;
    WireWriter to;
    to.bytes(1, header());
    to.number(2, held ? 1 : 0);
    for (const std::string &result : results) {
        to.chosen_bytes(3, result);
    }
    return {0, "", to.text()};
}

Answer StoreDouble::lease(std::string_view method, std::string_view request)
{
    WireWriter to;
    to.bytes(1, header());
    if (method == "LeaseGrant") {
        leases_[++next_lease_] = number_of(request, 1);
        to.number(2, raw(next_lease_));
        to.number(3, raw(leases_[next_lease_]));
        return {0, "", to.text()};
    }
    const std::int64_t id = number_of(request, 1);
    const bool known = leases_.count(id) != 0;
    if (method == "LeaseKeepAlive") {
        to.number(2, raw(id));
        to.number(3, known ? raw(std::max<std::int64_t>(leases_[id], 1)) : 0);
        return {0, "", to.text()};
    }
    if (!known) {
        return {not_found, "etcdserver: requested lease not found", ""};
    }
    leases_.erase(id);
    return {0, "", to.text()};
}

Answer StoreDouble::serve(std::string_view method, std::string_view request)
{
    const std::lock_guard lock(mutex_);
    ++served_[std::string(method)];
    if (method == "Range") {
        return range(request);
    }
    if (method == "Txn") {
        return txn(request);
    }
    if (method == "LeaseGrant" || method == "LeaseRevoke" || method == "LeaseKeepAlive") {
        return lease(method, request);
    }
    if (method == "Compact") {
        if (number_of(request, 1) > revision_) {
            return {invalid, "etcdserver: mvcc: required revision is a future revision", ""};
        }
        compacted_ = std::max(compacted_, number_of(request, 1));
        return {};
    }
    if (method == "Status") {
        WireWriter to;
        to.bytes(1, header());
        to.number(3, raw(in_use_));
        to.number(9, raw(in_use_));
        return {0, "", to.text()};
    }
    return {unimplemented, "unknown method", ""};
}

std::string StoreDouble::value(const std::string &key)
{
    const std::lock_guard lock(mutex_);
    const auto stored = at(key, revision_);
    return stored ? stored->value : "(nothing)";
}

std::vector<std::string> StoreDouble::keys(const std::string &prefix)
{
    const std::lock_guard lock(mutex_);
    std::vector<std::string> result;
    for (const auto &[name, changes] : history_) {
        if (name.compare(0, prefix.size(), prefix) == 0 && !changes.empty() && changes.rbegin()->second) {
            result.push_back(name);
        }
    }
    return result;
}

std::map<std::int64_t, std::optional<Stored>> StoreDouble::changes_after(const std::string &key, std::int64_t revision)
{
    const std::lock_guard lock(mutex_);
    const auto &changes = history_[key];
    return {changes.upper_bound(revision), changes.end()};
}

std::string StoreDouble::value_at(const std::string &key, std::int64_t revision)
{
    const std::lock_guard lock(mutex_);
    const auto stored = at(key, revision);
    return stored ? stored->value : "";
}

void StoreDouble::put(const std::string &key, const std::string &value)
{
    const std::lock_guard lock(mutex_);
    Stored now = at(key, revision_).value_or(Stored{"", revision_ + 1, 0, 0, 0});
    now.value = value;
    now.mod = ++revision_;
    ++now.version;
    history_[key][revision_] = now;
}

std::int64_t StoreDouble::revision()
{
    const std::lock_guard lock(mutex_);
    return revision_;
}

void StoreDouble::compact()
{
    const std::lock_guard lock(mutex_);
    compacted_ = revision_;
}

void StoreDouble::forget_history()
{
    const std::lock_guard lock(mutex_);
    compacted_ = revision_;
    std::erase_if(history_, [](const auto &key) { return key.second.empty() || !key.second.rbegin()->second; });
    for (auto &[name, changes] : history_) {
        changes.erase(changes.begin(), std::prev(changes.end()));
    }
}

void StoreDouble::end_leases()
{
    const std::lock_guard lock(mutex_);
    ++revision_;
    for (auto &[name, changes] : history_) {
        const auto stored = changes.empty() ? std::nullopt : changes.rbegin()->second;
        if (stored && stored->lease != 0) {
            changes[revision_] = std::nullopt;
        }
    }
    leases_.clear();
}

}  // namespace test
