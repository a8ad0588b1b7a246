#include "client.h"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

namespace etcd {
namespace {

constexpr int pause_ms = 20;  // before members are asked again that have just refused
constexpr std::size_t longest_answer = std::size_t{1} << 22U;

// The numbers of gRPC.
enum Status { ok = 0, invalid = 3, not_found = 5, no_permission = 7, exhausted = 8, out_of_range = 11, no_user = 16 };

bool says(const GrpcReply &reply, const char *words) { return reply.message.find(words) != std::string::npos; }

int timed_out(int error) { return error != 0 ? error : -ETIMEDOUT; }

}  // namespace

struct Client::Call {
    const char *path;
    std::string message;
    // Takes the answer. False: it is no such message; whoever gives one is as good as silent.
    std::function<bool(std::string_view)> take;
    bool of_lease = false;     // which may be over
    bool of_revision = false;  // which may be there no more
};

Allowed Client::allow_transfer() const
{
    const Times &times = settings_.times;
    return {Deadline::in(is_silent() ? times.silent_transfer_ms : times.transfer_ms), times.request_ms};
}

Allowed Client::allow_chunk() const
{
    const Times &times = settings_.times;
    // Half of the time for the first member, so that another one can be asked.
    return {Deadline::in(is_silent() ? times.silent_transfer_ms : times.chunk_ms), times.chunk_ms / 2};
}

bool Client::is_silent() const { return silent_since_ >= 0 && now_ms() - silent_since_ >= settings_.times.silence_ms; }

void Client::note(const std::string &what)
{
    problem_ = settings_.endpoints[member_].text + ": " + what;
    if (silent_since_ < 0) {
        silent_since_ = now_ms();
    }
}

void Client::next_member()
{
    connection_.reset();
    member_ = (member_ + 1) % settings_.endpoints.size();
}

void Client::pause(Deadline deadline) { (void)poll(nullptr, 0, std::min(pause_ms, deadline.left_ms())); }

bool Client::load_tls()
{
    if (settings_.tls_ca.empty() || tls_) {
        return true;
    }
    auto loaded = std::make_unique<TlsContext>();
    if (!loaded->load(settings_.tls_ca.c_str(), settings_.tls_cert.c_str(), settings_.tls_key.c_str(), problem_)) {
        return false;
    }
    tls_ = std::move(loaded);
    return true;
}

bool Client::connect(Deadline deadline, int &error)
{
    if (owner_ != getpid()) {
        connection_.reset();
    }
    if (connection_ && connection_->usable()) {
        return true;
    }
    connection_.reset();
    if (!load_tls()) {
        error = -EACCES;
        return false;
    }
    addresses_.resize(settings_.endpoints.size());
    const Endpoint &endpoint = settings_.endpoints[member_];
    std::optional<SocketAddress> &address = addresses_[member_];
    if (!address) {
        SocketAddress found;
        if (!resolve(endpoint, found)) {
            note("the name is not known here");
            return false;
        }
        address = found;
    }
    connection_ = std::make_unique<Connection>(endpoint, tls_.get());
    owner_ = getpid();
    if (!connection_->open(*address, deadline.at_most(settings_.times.connect_ms))) {
        note(connection_->why());
        error = connection_->certificate_refused() ? -EACCES : 0;
        connection_.reset();
        return false;
    }
    ++connections_;
    return true;
}

// What a member's answer means. Refusals of a transaction are such that it was not carried out. One that the call can't
// have is as good as no answer: so nobody takes it for what it means elsewhere.
Client::Try Client::judge(const Call &call, const GrpcReply &reply, int &error)
{
    error = -EPROTO;
    switch (reply.status) {
    case ok:
        error = 0;
        return Try::done;
    case no_permission:
    case no_user:
        error = -EACCES;
        return Try::refused;
    case exhausted:
        error = -ENOSPC;
        return says(reply, "space") ? Try::refused : Try::elsewhere;
    case out_of_range:
        error = compacted;
        return call.of_revision && says(reply, "compacted") ? Try::refused : Try::elsewhere;
    case not_found:
        error = -ESTALE;
        return call.of_lease ? Try::refused : Try::elsewhere;
    case invalid:
        if (says(reply, "old")) {
            return Try::elsewhere;  // users and roles have just been changed
        }
        error = says(reply, "user") ? -EACCES : -EPROTO;
        return Try::refused;
    default:
        return Try::elsewhere;
    }
}

Client::Try Client::attempt(const Call &call, const Allowed &allowed, bool &maybe, int &error)
{
    error = 0;
    if (!connect(allowed.deadline, error)) {
        return tls_ || settings_.tls_ca.empty() ? Try::elsewhere : Try::refused;
    }
    const GrpcReply *reply =
        connection_->call(call.path, call.message, longest_answer, allowed.deadline.at_most(allowed.request_ms));
    if (!reply) {
        note(connection_->why());
        error = connection_->certificate_refused() ? -EACCES : 0;
        maybe = maybe || (connection_->sent() && error == 0);
        return Try::elsewhere;
    }
    Try judged = judge(call, *reply, error);
    if (judged != Try::done) {
        note(reply->message.empty() ? "refused with status " + std::to_string(reply->status) : reply->message);
    } else if (!call.take(reply->body)) {
        note("an answer is not what was asked for");
        judged = Try::elsewhere;
    }
    if (judged == Try::elsewhere) {
        maybe = true;
        error = 0;
    } else {
        silent_since_ = -1;
    }
    return judged;
}

int Client::call(const Call &call, const Allowed &allowed, bool &maybe)
{
    std::size_t certificates = 0;  // members in a row that refused for a certificate
    for (std::size_t tries = 1;; ++tries) {
        int error = 0;
        const Try tried = attempt(call, allowed, maybe, error);
        if (tried != Try::elsewhere) {
            return error;
        }
        certificates = error == -EACCES ? certificates + 1 : 0;
        next_member();
        if (certificates == settings_.endpoints.size() || allowed.deadline.passed()) {
            return timed_out(error);
        }
        if (tries % settings_.endpoints.size() == 0) {
            pause(allowed.deadline);
        }
    }
}

namespace {

// Takes an answer of its kind, of this try alone.
template <typename Response>
auto into(Response &response)
{
    return [&response](std::string_view answer) {
        response = {};
        return decode(answer, response);
    };
}

bool take_nothing(std::string_view /*answer*/) { return true; }

}  // namespace

int Client::range(const RangeRequest &request, RangeResponse &response, const Allowed &allowed)
{
    bool maybe = false;
    const bool of_revision = request.revision != 0;
    return call({"/etcdserverpb.KV/Range", encode(request), into(response), false, of_revision}, allowed, maybe);
}

int Client::txn(const TxnRequest &request, TxnResponse &response, const Allowed &allowed, bool &maybe)
{
    const bool of_lease = std::any_of(request.then.begin(), request.then.end(),
                                      [](const Step &step) { return step.put && step.put->lease != 0; });
    return call({"/etcdserverpb.KV/Txn", encode(request), into(response), of_lease}, allowed, maybe);
}

int Client::grant(std::int64_t seconds, LeaseResponse &response, const Allowed &allowed)
{
    bool maybe = false;
    LeaseRequest request;
    request.seconds = seconds;
    const int error = call({"/etcdserverpb.Lease/LeaseGrant", encode_grant(request), into(response)}, allowed, maybe);
    return error == 0 && (response.id == 0 || !response.error.empty()) ? -EPROTO : error;
}

int Client::keep_alive(std::int64_t lease, LeaseResponse &response, const Allowed &allowed)
{
    bool maybe = false;
    LeaseRequest request;
    request.id = lease;
    return call({"/etcdserverpb.Lease/LeaseKeepAlive", encode_lease_id(request), into(response), true}, allowed, maybe);
}

int Client::revoke(std::int64_t lease, const Allowed &allowed)
{
    bool maybe = false;
    LeaseRequest request;
    request.id = lease;
    return call({"/etcdserverpb.Lease/LeaseRevoke", encode_lease_id(request), take_nothing, true}, allowed, maybe);
}

int Client::compact(std::int64_t revision, const Allowed &allowed)
{
    bool maybe = false;
    return call({"/etcdserverpb.KV/Compact", encode(CompactRequest{revision}), take_nothing, false, true}, allowed,
                maybe);
}

int Client::status(StatusResponse &response, const Allowed &allowed)
{
    bool maybe = false;
    return call({"/etcdserverpb.Maintenance/Status", {}, into(response)}, allowed, maybe);
}

}  // namespace etcd
