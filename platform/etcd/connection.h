// The connection to one member: a socket, TLS where it is set, and calls. Each wait has a deadline; none is a loop
// without a pause. It has no thread, is closed in programs that are run, and never takes a standard descriptor.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "deadline.h"
#include "endpoint.h"
#include "grpc_session.h"
#include "scoped.h"
#include "tls.h"

namespace etcd {

class Connection {
public:
    // tls is null for plain text, and outlives the connection.
    Connection(const Endpoint &endpoint, const TlsContext *tls);

    // False: why() says what keeps it.
    bool open(const SocketAddress &address, Deadline deadline);

    // Whether it is open still. Reads what the member has said meanwhile.
    bool usable();

    // Makes a call. Null: no answer, why() says for what reason; the connection is not to be used again then. Once it
    // returned null the member may have got the call if sent() says so, and may carry it out at any later time.
    const GrpcReply *call(const char *path, std::string_view message, std::size_t longest_answer, Deadline deadline);
    bool sent() const { return sent_; }

    // A certificate is the reason: the member's, or the one that was shown to it.
    bool certificate_refused() const { return tls_ && tls_->certificate_refused(); }
    std::string why() const;

private:
    enum class Got { bytes, nothing, end };

    bool connect_to(const SocketAddress &address, Deadline deadline);
    bool shake_hands(Deadline deadline);
    bool hear_verdict(Deadline deadline);
    bool send_all(Deadline deadline);
    bool wait_for(short events, Deadline deadline);
    Got receive();
    bool feed_received();
    bool drain();
    bool fail(std::string why);

    std::optional<kesta::UniqueFd> fd_;
    std::optional<TlsSession> tls_;
    GrpcSession grpc_;
    std::string received_;  // as it came
    std::string wire_;      // what has to go, as it goes
    bool broken_ = false;
    bool sent_ = false;
    std::string why_;
};

}  // namespace etcd
