#include "journal.h"

#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>

#include "beneath.h"
#include "printable.h"

namespace engine {
namespace {

constexpr std::size_t longest_value = 1024;

std::string plain_value(const std::string &value) { return plain_text(value.substr(0, longest_value)); }

}  // namespace

std::string journal_datagram(const JournalFields &fields)
{
    std::string datagram;
    for (const auto &[name, value] : fields) {
        datagram += name + "=" + plain_value(value) + "\n";
    }
    return datagram;
}

bool send_to_journal(const JournalFields &fields, const std::string &socket)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socket.size() >= sizeof(address.sun_path)) {
        return false;
    }
    memcpy(address.sun_path, socket.data(), socket.size());
    const Descriptor own(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const std::string datagram = journal_datagram(fields);
    return own && sendto(own.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL,
                         reinterpret_cast<const sockaddr *>(&address),
                         sizeof(address)) == static_cast<ssize_t>(datagram.size());
}

void send_to_log(const JournalFields &fields)
{
    std::string line;
    int priority = LOG_NOTICE;
    for (const auto &[name, value] : fields) {
        if (name == "MESSAGE") {
            line = plain_value(value) + line;
        } else if (name == "PRIORITY" && value.size() == 1) {
            priority = value[0] - '0';
        } else if (name.starts_with("KESTA_")) {
            line += " " + name + "=\"" + plain_value(value) + "\"";
        }
    }
    openlog("kestactl", LOG_PID, LOG_DAEMON);
    syslog(priority & LOG_PRIMASK, "%s", line.c_str());
    closelog();
}

}  // namespace engine
