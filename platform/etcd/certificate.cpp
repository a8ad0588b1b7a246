#include "certificate.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <array>
#include <cstdio>

#include "opened_file.h"

namespace etcd {

std::string certificate_notice(const char *path, std::time_t now)
{
    constexpr long day = 86400;
    const kesta::StandardDescriptorsTaken taken;
    FILE *file = kesta::open_stream(path);
    X509 *certificate = file ? PEM_read_X509(file, nullptr, nullptr, nullptr) : nullptr;
    if (file) {
        (void)fclose(file);  // read only
    }
    struct tm end {};
    const bool known = certificate && ASN1_TIME_to_tm(X509_get0_notAfter(certificate), &end) == 1;
    X509_free(certificate);
    ERR_clear_error();
    if (!known) {
        return "";
    }
    const long left = static_cast<long>(timegm(&end) - now);
    std::array<char, 64> date{};
    (void)strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%SZ", &end);
    std::string text = "the certificate " + std::string(path);
    if (left < 0) {
        return text + " has ended at " + date.data() + ": members refuse it";
    }
    return text + " ends at " + date.data() + ", in " + std::to_string(left / day) + " days";
}

}  // namespace etcd
