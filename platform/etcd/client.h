// The cluster as one that answers: members are asked one after the other until one answers or the time is over.
//
// A call that was sent and not answered may have been carried out, or be carried out later. So the changing calls are
// transactions whose conditions make a repetition harmless, and tell so: "maybe" is set where an earlier try of the
// same call may have been the one that was carried out. Whoever gets a refused condition with it has to find out.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "connection.h"
#include "deadline.h"
#include "endpoint.h"
#include "messages.h"
#include "tls.h"

namespace etcd {

struct Times {
    int connect_ms = 300;
    int request_ms = 700;
    int transfer_ms = 2000;
    int chunk_ms = 5000;
    // Who has had no answer for so long waits for shorter times, until there is one.
    int silence_ms = 10000;
    int silent_transfer_ms = 500;
};

struct ClusterSettings {
    std::vector<Endpoint> endpoints;
    Times times;
    std::string tls_ca;  // empty: plain text
    std::string tls_cert;
    std::string tls_key;
};

// The time of one transfer: in all, and for one try at one member.
struct Allowed {
    Deadline deadline;
    int request_ms;
};

// The results of all calls: 0, or a negative errno: -ETIMEDOUT (nobody answered in time), -EACCES (no permission, or a
// certificate is the reason), -ENOSPC, -ESTALE (the lease is over), this one, or -EPROTO for what no member should say.
inline constexpr int compacted = -ENODATA;  // the revision is there no more

class Client {
public:
    explicit Client(ClusterSettings settings) : settings_(std::move(settings)) {}

    Allowed allow_transfer() const;
    Allowed allow_chunk() const;

    int range(const RangeRequest &request, RangeResponse &response, const Allowed &allowed);
    int txn(const TxnRequest &request, TxnResponse &response, const Allowed &allowed, bool &maybe);
    int grant(std::int64_t seconds, LeaseResponse &response, const Allowed &allowed);
    int keep_alive(std::int64_t lease, LeaseResponse &response, const Allowed &allowed);
    int revoke(std::int64_t lease, const Allowed &allowed);
    int compact(std::int64_t revision, const Allowed &allowed);
    int status(StatusResponse &response, const Allowed &allowed);

    // Counts connections: what was learned over an earlier one may be of a cluster that was restored since.
    std::uint64_t connections() const { return connections_; }

    // In a child made by fork: lets go of the parent's connection, of which the member hears nothing.
    void forget_connection() { connection_.reset(); }

    // What kept the last failed call, for people.
    const std::string &problem() const { return problem_; }

private:
    enum class Try { done, refused, elsewhere };
    struct Call;

    int call(const Call &call, const Allowed &allowed, bool &maybe);
    Try attempt(const Call &call, const Allowed &allowed, bool &maybe, int &error);
    static Try judge(const Call &call, const GrpcReply &reply, int &error);
    bool connect(Deadline deadline, int &error);
    bool load_tls();
    void next_member();
    void note(const std::string &what);
    bool is_silent() const;
    void pause(Deadline deadline);

    const ClusterSettings settings_;
    std::vector<std::optional<SocketAddress>> addresses_;
    std::unique_ptr<TlsContext> tls_;
    std::unique_ptr<Connection> connection_;
    pid_t owner_ = 0;  // of the connection
    std::size_t member_ = 0;
    std::uint64_t connections_ = 0;
    std::int64_t silent_since_ = -1;
    std::string problem_;
};

}  // namespace etcd
