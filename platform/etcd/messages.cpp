#include "messages.h"

#include "wire.h"

namespace etcd {
namespace {

// Nobody asks for more; an empty record is a few bytes of text, and many times that in memory.
constexpr std::size_t most_found = 4096;
constexpr std::size_t most_steps = 16;

std::uint64_t unsigned_of(std::int64_t number) { return static_cast<std::uint64_t>(number); }
std::int64_t signed_of(std::uint64_t number) { return static_cast<std::int64_t>(number); }

std::string encode(const Condition &condition)
{
    constexpr unsigned target_made = 1;
    constexpr unsigned target_changed = 2;
    const bool made = condition.of == Condition::Of::made_at;
    WireWriter to;
    to.number(2, made ? target_made : target_changed);
    to.bytes(3, condition.key);
    to.chosen_number(made ? 5 : 6, unsigned_of(condition.revision));
    return to.text();
}

std::string encode(const Step &step)
{
    WireWriter to;
    if (step.range) {
        to.chosen_bytes(1, encode(*step.range));
    } else if (step.put) {
        to.chosen_bytes(2, encode(*step.put));
    } else if (step.erase) {
        to.chosen_bytes(3, encode(*step.erase));
    }
    return to.text();
}

// Reads all fields of a message. The body gets each, and says whether it can be used.
template <typename Body>
bool read_fields(std::string_view text, Body body)
{
    WireReader from(text);
    WireReader::Field field;
    while (from.next(field)) {
        if (!body(field)) {
            return false;
        }
    }
    return !from.failed();
}

bool decode_header(std::string_view text, std::int64_t &revision)
{
    return read_fields(text, [&](const WireReader::Field &field) {
        if (field.number == 3) {
            revision = signed_of(field.value);
        }
        return true;
    });
}

bool decode(std::string_view text, KeyValue &to)
{
    return read_fields(text, [&](const WireReader::Field &field) {
        switch (field.number) {
        case 1:
            to.key = field.bytes;
            break;
        case 2:
            to.create_revision = signed_of(field.value);
            break;
        case 3:
            to.mod_revision = signed_of(field.value);
            break;
        case 4:
            to.version = signed_of(field.value);
            break;
        case 5:
            to.value = field.bytes;
            break;
        default:
            break;
        }
        return true;
    });
}

// What one step of a transaction found; a put and a deletion find nothing.
bool decode_step(std::string_view text, TxnResponse &response)
{
    return read_fields(text, [&](const WireReader::Field &field) {
        return field.number != 1 ||
               (response.ranges.size() < most_steps && decode(field.bytes, response.ranges.emplace_back()));
    });
}

}  // namespace

std::string encode(const RangeRequest &request)
{
    WireWriter to;
    to.bytes(1, request.key);
    to.bytes(2, request.end);
    to.number(3, unsigned_of(request.limit));
    to.number(4, unsigned_of(request.revision));
    to.number(8, request.keys_only ? 1 : 0);
    return to.text();
}

std::string encode(const PutRequest &request)
{
    WireWriter to;
    to.bytes(1, request.key);
    to.bytes(2, request.value);
    to.number(3, unsigned_of(request.lease));
    return to.text();
}

std::string encode(const DeleteRequest &request)
{
    WireWriter to;
    to.bytes(1, request.key);
    to.bytes(2, request.end);
    return to.text();
}

std::string encode(const TxnRequest &request)
{
    WireWriter to;
    for (const Condition &condition : request.conditions) {
        to.chosen_bytes(1, encode(condition));
    }
    for (const Step &step : request.then) {
        to.chosen_bytes(2, encode(step));
    }
    for (const Step &step : request.otherwise) {
        to.chosen_bytes(3, encode(step));
    }
    return to.text();
}

std::string encode(const CompactRequest &request)
{
    WireWriter to;
    to.number(1, unsigned_of(request.revision));
    return to.text();
}

std::string encode_grant(const LeaseRequest &request)
{
    WireWriter to;
    to.number(1, unsigned_of(request.seconds));
    return to.text();
}

std::string encode_lease_id(const LeaseRequest &request)
{
    WireWriter to;
    to.number(1, unsigned_of(request.id));
    return to.text();
}

bool decode(std::string_view text, RangeResponse &response)
{
    return read_fields(text, [&](const WireReader::Field &field) {
        switch (field.number) {
        case 1:
            return decode_header(field.bytes, response.revision);
        case 2:
            return response.found.size() < most_found && decode(field.bytes, response.found.emplace_back());
        case 3:
            response.more = field.value != 0;
            return true;
        default:
            return true;
        }
    });
}

bool decode(std::string_view text, TxnResponse &response)
{
    return read_fields(text, [&](const WireReader::Field &field) {
        switch (field.number) {
        case 1:
            return decode_header(field.bytes, response.revision);
        case 2:
            response.held = field.value != 0;
            return true;
        case 3:
            return decode_step(field.bytes, response);
        default:
            return true;
        }
    });
}

bool decode(std::string_view text, LeaseResponse &response)
{
    return read_fields(text, [&](const WireReader::Field &field) {
        if (field.number == 2) {
            response.id = signed_of(field.value);
        } else if (field.number == 3) {
            response.seconds = signed_of(field.value);
        } else if (field.number == 4) {
            response.error = field.bytes;
        }
        return true;
    });
}

bool decode(std::string_view text, StatusResponse &response)
{
    return read_fields(text, [&](const WireReader::Field &field) {
        if (field.number == 3) {
            response.bytes = signed_of(field.value);
        } else if (field.number == 4) {
            response.leader = field.value;
        } else if (field.number == 9) {
            response.bytes_in_use = signed_of(field.value);
        }
        return true;
    });
}

std::string end_of_prefix(std::string prefix)
{
    while (!prefix.empty()) {
        if (static_cast<unsigned char>(prefix.back()) != 0xff) {
            ++prefix.back();
            return prefix;
        }
        prefix.pop_back();
    }
    return std::string(1, '\0');  // all keys
}

}  // namespace etcd
