// When a certificate ends, for whoever has to replace it before.
#pragma once

#include <ctime>
#include <string>

namespace etcd {

// A line for people: the certificate of that file ends (or ended) then. Empty: it can't be read.
std::string certificate_notice(const char *path, std::time_t now);

}  // namespace etcd
