// The etcd platform beside what its members cost: the library's block access beside a bare round trip on a socket, and
// archives beside the same bytes by a bare client. Run it with the platform in the search path, and its settings in the
// environment: scripts/etcd_bench.sh does.
#include <arpa/inet.h>
#include <kesta/kesta.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "client.h"
#include "sbacc.h"

namespace {

constexpr int repetitions = 2000;
constexpr std::size_t archive_size = 100000000;
constexpr std::size_t chunk_size = 65536;

double now_us()
{
    struct timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

void require(bool holds, const char *what)
{
    if (!holds) {
        fprintf(stderr, "etcd_bench: %s\n", what);
        exit(1);
    }
}

std::string frame(char type, char flags, unsigned stream, const std::string &body)
{
    std::string bytes;
    for (const unsigned shift : {16U, 8U, 0U}) {
        bytes.push_back(static_cast<char>(body.size() >> shift));
    }
    bytes += type;
    bytes += flags;
    for (const unsigned shift : {24U, 16U, 8U, 0U}) {
        bytes.push_back(static_cast<char>(stream >> shift));
    }
    return bytes + body;
}

std::string literal(const std::string &name, const std::string &value)
{
    return std::string(1, '\0') + static_cast<char>(name.size()) + name + static_cast<char>(value.size()) + value;
}

// One call after the other on a socket, and nothing else: no checks, no tables, no library.
class BareSocket {
public:
    explicit BareSocket(const etcd::Endpoint &endpoint)
    {
        struct sockaddr_in address {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(atoi(endpoint.port.c_str())));
        (void)inet_pton(AF_INET, endpoint.host.c_str(), &address.sin_addr);
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        require(connect(fd_, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) == 0, "no connection");
        const int at_once = 1;
        (void)setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof(at_once));
        const struct timeval longest {
            10, 0
        };
        (void)setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof(longest));
        send_all("PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + frame(4, 0, 0, std::string("\0\4\0\x40\0\0", 6)) +
                 frame(8, 0, 0, std::string("\x40\0\0\0", 4)));
        headers_ = literal(":method", "POST") + literal(":scheme", "http") + literal(":authority", endpoint.text) +
                   literal("content-type", "application/grpc") + literal("te", "trailers");
    }
    ~BareSocket() { close(fd_); }
    BareSocket(const BareSocket &) = delete;
    BareSocket &operator=(const BareSocket &) = delete;

    void call(const std::string &path, const std::string &message)
    {
        stream_ += 2;
        std::string body(1, '\0');
        for (const unsigned shift : {24U, 16U, 8U, 0U}) {
            body.push_back(static_cast<char>(message.size() >> shift));
        }
        send_all(frame(1, 4, stream_, literal(":path", path) + headers_) + frame(0, 1, stream_, body + message));
        for (;;) {
            while (in_.size() < 9 || in_.size() < 9 + length()) {
                char piece[65536];
                const ssize_t size = recv(fd_, piece, sizeof(piece), 0);
                require(size > 0, "the connection ended");
                in_.append(piece, static_cast<std::size_t>(size));
            }
            const bool last = (in_[3] == 1 || in_[3] == 0) && (in_[4] & 1) != 0;
            if (in_[3] == 6 && in_[4] == 0) {
                send_all(frame(6, 1, 0, in_.substr(9, 8)));
            }
            if (in_[3] == 4 && in_[4] == 0) {
                send_all(frame(4, 1, 0, ""));
            }
            in_.erase(0, 9 + length());
            if (last) {
                return;
            }
        }
    }

private:
    std::size_t length() const
    {
        const auto byte = [this](std::size_t i) {
            return std::size_t{static_cast<unsigned char>(in_[i])};
        };
        return byte(0) << 16U | byte(1) << 8U | byte(2);
    }
    void send_all(const std::string &bytes)
    {
        require(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size()),
                "no sending");
    }

    int fd_ = -1;
    unsigned stream_ = static_cast<unsigned>(-1);
    std::string headers_;
    std::string in_;
};

// The medians of two bodies that take turns.
void compare(const char *what, const char *against, int times, double aim, const std::function<void()> &measured,
             const std::function<void()> &raw)
{
    std::vector<double> ours;
    std::vector<double> theirs;
    for (int i = 0; i < times; ++i) {
        for (auto [body, taken] : {std::pair{&measured, &ours}, std::pair{&raw, &theirs}}) {
            const double begun = now_us();
            (*body)();
            taken->push_back(now_us() - begun);
        }
    }
    const auto median = [](std::vector<double> &all) {
        std::sort(all.begin(), all.end());
        return all[all.size() / 2];
    };
    const double one = median(ours);
    const double other = median(theirs);
    printf("| %s | %s | %.0f us | %.0f us | %.2f times |", what, against, one, other, one / other);
    aim > 0 ? printf(" at most %.1f times | %s |\n", aim, one / other <= aim ? "met" : "**missed**")
            : printf(" - | - |\n");
    fflush(stdout);
}

etcd::Step put(const std::string &key, const std::string &value)
{
    return {std::nullopt, etcd::PutRequest{key, value, 0}, std::nullopt};
}

}  // namespace

int main()
{
    const char *members = getenv("KESTA_PLATFORM_NV_ENDPOINTS");
    etcd::ClusterSettings settings;
    std::string why;
    require(members && etcd::parse_endpoints(members, settings.endpoints, why), "KESTA_PLATFORM_NV_ENDPOINTS is wrong");
    BareSocket socket(settings.endpoints[0]);
    etcd::Client client(settings);
    kestal_get_cnt_num_from_cpinfo(KESTA_CPINFO_OWN_NUMBER);
    char name[KESTA_AREA_NAME_SIZE] = KESTA_SLOT0;
    const auto access = [&](int direction) {
        require(kestal_non_volatile_rw_memory(KESTA_BLOCK_OLD_BACKUP_NAME, direction, name, sizeof(name)) == KESTA_OK,
                "block access fails");
    };
    access(KESTA_BLOCK_WRITE);

    etcd::RangeRequest range;
    range.key = "/kesta/nv/2";
    const std::string range_text = etcd::encode(range);
    compare(
        "block read, 32 bytes", "a bare read of the same key", repetitions, 1.1, [&] { access(KESTA_BLOCK_READ); },
        [&] { socket.call("/etcdserverpb.KV/Range", range_text); });

    etcd::TxnRequest txn;
    txn.conditions = {{"/bare/none", etcd::Condition::Of::changed_at, 0}};
    txn.then = {put("/bare/nv", std::string(664, 'x'))};
    const std::string txn_text = etcd::encode(txn);
    compare(
        "block write, 32 bytes", "a bare conditional write of 664 bytes", repetitions, 1.1,
        [&] { access(KESTA_BLOCK_WRITE); }, [&] { socket.call("/etcdserverpb.KV/Txn", txn_text); });
    compare(
        "inner lock taken and released", "its four bare calls", repetitions / 4, 0,
        [&] {
            require(kestal_cntl_innerlock(0) == KESTA_OK && kestal_reset_mycnt_innerlock_main(0, 1) == KESTA_OK,
                    "the inner lock fails");
        },
        [&] {
            for (int i = 0; i < 2; ++i) {
                socket.call("/etcdserverpb.KV/Range", range_text);
                socket.call("/etcdserverpb.KV/Txn", txn_text);
            }
        });

    std::string archive(archive_size, '\0');
    for (std::size_t i = 0; i < archive.size(); ++i) {
        archive[i] = static_cast<char>(i * 2654435761U >> 13U);
    }
    const auto bare_chunks = [&](bool writes) {
        for (std::size_t at = 0; at < archive.size(); at += chunk_size) {
            const std::string key = "/bare/c/" + std::to_string(at);
            etcd::TxnResponse answer;
            etcd::RangeResponse found;
            etcd::TxnRequest request;
            bool maybe = false;
            request.then = {put(key, archive.substr(at, chunk_size))};
            etcd::RangeRequest wanted;
            wanted.key = key;
            require((writes ? client.txn(request, answer, client.allow_chunk(), maybe)
                            : client.range(wanted, found, client.allow_chunk())) == 0,
                    "a bare chunk fails");
        }
    };
    compare(
        "100 MB into the backup area", "the same bytes by a bare client", 3, 0,
        [&] {
            int handle = -1;
            int flag = 0;
            require(sbacc_open("bench", "w", &handle, &flag) == 0 &&
                        sbacc_write(archive.data(), archive_size, 0, handle) == static_cast<int>(archive_size) &&
                        sbacc_close(handle) == 0,
                    "an archive can't be written");
        },
        [&] { bare_chunks(true); });
    compare(
        "100 MB out of the backup area", "the same bytes by a bare client", 3, 0,
        [&] {
            int handle = -1;
            int flag = 0;
            std::string back(archive_size, '\0');
            require(sbacc_open("bench", "r", &handle, &flag) == 0 &&
                        sbacc_read(back.data(), archive_size, 0, handle) == static_cast<int>(archive_size) &&
                        sbacc_close(handle) == 0 && back == archive,
                    "an archive can't be read");
        },
        [&] { bare_chunks(false); });
    return 0;
}
