#include "tls.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <array>
#include <climits>

#include "opened_file.h"

namespace etcd {
namespace {

constexpr std::size_t piece_size = 4096;  // of a thread's stack, which may be small

// Nobody is waited for where a FIFO stands in the place of a certificate.
bool is_usable(const char *path, std::string &why, const char *setting)
{
    if (kesta::may_wait(path)) {
        why = std::string(setting) + " " + path + " can't be used: it is no plain file";
    }
    return why.empty();
}

// The reason of the last failure, as OpenSSL words it.
std::string reason()
{
    std::string result;
    for (unsigned long error = ERR_get_error(); error != 0; error = ERR_get_error()) {
        const char *text = ERR_reason_error_string(error);
        result = text ? text : "unknown error";
    }
    return result.empty() ? "the connection ended" : result;
}

// Alerts by which a member refuses the certificate that it was shown.
bool is_certificate_alert(unsigned long error)
{
    switch (ERR_GET_REASON(error)) {
    case SSL_R_CERTIFICATE_VERIFY_FAILED:
    case SSL_R_SSLV3_ALERT_BAD_CERTIFICATE:
    case SSL_R_SSLV3_ALERT_UNSUPPORTED_CERTIFICATE:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_REVOKED:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_EXPIRED:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_UNKNOWN:
    case SSL_R_TLSV1_ALERT_UNKNOWN_CA:
    case SSL_R_TLSV1_ALERT_ACCESS_DENIED:
    case SSL_R_TLSV13_ALERT_CERTIFICATE_REQUIRED:
        return true;
    default:
        return false;
    }
}

}  // namespace

TlsContext::~TlsContext() { SSL_CTX_free(context_); }

bool TlsContext::load(const char *ca, const char *certificate, const char *key, std::string &why)
{
    const kesta::StandardDescriptorsTaken taken;  // it keeps its source of random numbers open
    ERR_clear_error();
    context_ = SSL_CTX_new(TLS_client_method());
    if (!context_) {
        why = "TLS can't be used: " + reason();
        return false;
    }
    SSL_CTX_set_min_proto_version(context_, TLS1_2_VERSION);
    SSL_CTX_set_verify(context_, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_session_cache_mode(context_, SSL_SESS_CACHE_OFF);
    static constexpr std::array<unsigned char, 3> http2{2, 'h', '2'};
    (void)SSL_CTX_set_alpn_protos(context_, http2.data(), http2.size());  // a member without it is told apart later
    if (!is_usable(ca, why, "tls_ca") || !is_usable(certificate, why, "tls_cert") || !is_usable(key, why, "tls_key")) {
        return false;
    }
    if (SSL_CTX_load_verify_file(context_, ca) != 1) {
        why = std::string("tls_ca ") + ca + " can't be used: " + reason();
    } else if (SSL_CTX_use_certificate_chain_file(context_, certificate) != 1) {
        why = std::string("tls_cert ") + certificate + " can't be used: " + reason();
    } else if (SSL_CTX_use_PrivateKey_file(context_, key, SSL_FILETYPE_PEM) != 1) {
        why = std::string("tls_key ") + key + " can't be used: " + reason();
    } else if (SSL_CTX_check_private_key(context_) != 1) {
        why = std::string("tls_key ") + key + " is not the key of tls_cert";
    }
    return why.empty();
}

TlsSession::TlsSession(const TlsContext &context, const std::string &host, bool is_address)
    : ssl_(SSL_new(context.get()))
{
    BIO *in = BIO_new(BIO_s_mem());
    BIO *out = BIO_new(BIO_s_mem());
    if (!ssl_ || !in || !out) {
        BIO_free(in);
        BIO_free(out);
        why_ = "no memory";
        return;
    }
    SSL_set_bio(ssl_, in, out);  // which are the session's from here on
    SSL_set_connect_state(ssl_);
    const int named = is_address ? X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl_), host.c_str())
                                 : SSL_set1_host(ssl_, host.c_str());
    if (named != 1 || (!is_address && SSL_set_tlsext_host_name(ssl_, host.c_str()) != 1)) {
        why_ = "no name to look for in the member's certificate";
    }
}

TlsSession::~TlsSession() { SSL_free(ssl_); }

bool TlsSession::shaken() const { return SSL_is_init_finished(ssl_) != 0; }

bool TlsSession::verdict_follows() const { return SSL_version(ssl_) >= TLS1_3_VERSION; }

bool TlsSession::fail(int result)
{
    const int error = SSL_get_error(ssl_, result);
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
        return true;
    }
    certificate_refused_ = is_certificate_alert(ERR_peek_error());
    const long verified = SSL_get_verify_result(ssl_);
    if (verified != X509_V_OK) {
        certificate_refused_ = true;
        why_ = std::string("the member's certificate is refused: ") + X509_verify_cert_error_string(verified);
    } else if (certificate_refused_) {
        why_ = "the member refuses the certificate of tls_cert: " + reason();
    } else {
        why_ = reason();
    }
    return false;
}

bool TlsSession::advance()
{
    ERR_clear_error();
    const int result = SSL_do_handshake(ssl_);
    return result == 1 || fail(result);
}

bool TlsSession::feed(std::string_view wire, std::string &plain)
{
    if (!why_.empty() || wire.size() > INT_MAX ||
        BIO_write(SSL_get_rbio(ssl_), wire.data(), static_cast<int>(wire.size())) != static_cast<int>(wire.size())) {
        return false;
    }
    if (!shaken() && !advance()) {
        return false;
    }
    while (shaken()) {
        std::array<char, piece_size> piece;
        ERR_clear_error();
        const int size = SSL_read(ssl_, piece.data(), piece.size());
        if (size <= 0) {
            return fail(size);
        }
        plain.append(piece.data(), static_cast<std::size_t>(size));
    }
    return true;
}

bool TlsSession::drain(std::string_view plain, std::string &wire)
{
    if (!why_.empty() || (!shaken() && !advance())) {
        return false;
    }
    if (!plain.empty()) {
        ERR_clear_error();
        const int result = SSL_write(ssl_, plain.data(), static_cast<int>(plain.size()));
        if (result <= 0 && !fail(result)) {
            return false;
        }
    }
    std::array<char, piece_size> piece;
    for (;;) {
        const int size = BIO_read(SSL_get_wbio(ssl_), piece.data(), piece.size());
        if (size <= 0) {
            return true;
        }
        wire.append(piece.data(), static_cast<std::size_t>(size));
    }
}

}  // namespace etcd
