// TLS with a member, as bytes that come and bytes that go. It reaches no socket: what ends it says nothing to the
// member.
#pragma once

#include <memory>
#include <string>
#include <string_view>

struct ssl_ctx_st;
struct ssl_st;

namespace etcd {

// Certificates and keys, read once.
class TlsContext {
public:
    TlsContext() = default;
    ~TlsContext();
    TlsContext(const TlsContext &) = delete;
    TlsContext &operator=(const TlsContext &) = delete;

    // False: why says which file can't be used, and for what reason.
    bool load(const char *ca, const char *certificate, const char *key, std::string &why);

    ssl_ctx_st *get() const { return context_; }

private:
    ssl_ctx_st *context_ = nullptr;
};

class TlsSession {
public:
    // The member has to show a certificate for the name, or for the address.
    TlsSession(const TlsContext &context, const std::string &host, bool is_address);
    ~TlsSession();
    TlsSession(const TlsSession &) = delete;
    TlsSession &operator=(const TlsSession &) = delete;

    // Takes what came, and appends what it means. False: the connection is over.
    bool feed(std::string_view wire, std::string &plain);

    // Appends what has to go for it, or for the handshake alone. False as above.
    bool drain(std::string_view plain, std::string &wire);

    bool shaken() const;

    // Newer TLS shakes hands before the member has looked at the certificate; what it thinks of it comes then.
    bool verdict_follows() const;

    const std::string &why() const { return why_; }

    // It was ended for a certificate: the member's, or the one that was shown to it.
    bool certificate_refused() const { return certificate_refused_; }

private:
    bool advance();
    bool fail(int result);

    ssl_st *ssl_ = nullptr;
    std::string why_;
    bool certificate_refused_ = false;
};

}  // namespace etcd
