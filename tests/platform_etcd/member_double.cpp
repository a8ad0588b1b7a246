#include "member_double.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <nghttp2/nghttp2.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

namespace test {
namespace {

std::string framed(const std::string &body)
{
    std::string text(1, '\0');
    for (unsigned shift = 32; shift > 0;) {
        shift -= 8;
        text.push_back(static_cast<char>(body.size() >> shift & 0xffU));
    }
    return text + body;
}

nghttp2_nv header(const char *name, const std::string &value)
{
    auto *name_bytes = reinterpret_cast<std::uint8_t *>(const_cast<char *>(name));
    auto *value_bytes = reinterpret_cast<std::uint8_t *>(const_cast<char *>(value.data()));
    return {name_bytes, value_bytes, std::char_traits<char>::length(name), value.size(), NGHTTP2_NV_FLAG_NONE};
}

}  // namespace

// One client's connection. Its calls come one after the other.
struct MemberDouble::Connection {
    MemberDouble &member;
    int fd;
    nghttp2_session *session = nullptr;
    std::string path;
    std::string request;
    std::string answer;
    std::size_t sent = 0;
    int status = 0;
    std::string message;
    std::string out;
    bool over = false;  // is to be closed when what is left has gone
    bool floods = false;

    Connection(MemberDouble &the_member, int the_fd) : member(the_member), fd(the_fd)
    {
        nghttp2_session_callbacks *callbacks = nullptr;
        nghttp2_session_callbacks_new(&callbacks);
        nghttp2_session_callbacks_set_on_header_callback(callbacks, on_header);
        nghttp2_session_callbacks_set_on_data_chunk_recv_callback(callbacks, on_data);
        nghttp2_session_callbacks_set_on_frame_recv_callback(callbacks, on_frame);
        nghttp2_session_server_new(&session, callbacks, this);
        nghttp2_session_callbacks_del(callbacks);
        nghttp2_submit_settings(session, NGHTTP2_FLAG_NONE, nullptr, 0);
        (void)nghttp2_session_set_local_window_size(session, NGHTTP2_FLAG_NONE, 0, 1 << 24);
    }
    ~Connection()
    {
        nghttp2_session_del(session);
        close(fd);
    }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    static int on_header(nghttp2_session * /*session*/, const nghttp2_frame * /*frame*/, const std::uint8_t *name,
                         std::size_t name_size, const std::uint8_t *value, std::size_t value_size,
                         std::uint8_t /*flags*/, void *user)
    {
        if (std::string(reinterpret_cast<const char *>(name), name_size) == ":path") {
            static_cast<Connection *>(user)->path.assign(reinterpret_cast<const char *>(value), value_size);
        }
        return 0;
    }
    static int on_data(nghttp2_session * /*session*/, std::uint8_t /*flags*/, std::int32_t /*stream*/,
                       const std::uint8_t *bytes, std::size_t size, void *user)
    {
        static_cast<Connection *>(user)->request.append(reinterpret_cast<const char *>(bytes), size);
        return 0;
    }
    static int on_frame(nghttp2_session * /*session*/, const nghttp2_frame *frame, void *user)
    {
        auto &self = *static_cast<Connection *>(user);
        const bool whole = (frame->hd.flags & NGHTTP2_FLAG_END_STREAM) != 0;
        if (whole && (frame->hd.type == NGHTTP2_DATA || frame->hd.type == NGHTTP2_HEADERS)) {
            self.serve(frame->hd.stream_id);
            self.request.clear();
        }
        return 0;
    }
    static ssize_t read_answer(nghttp2_session *session, std::int32_t stream, std::uint8_t *to, std::size_t room,
                               std::uint32_t *flags, nghttp2_data_source *source, void * /*user*/)
    {
        auto &self = *static_cast<Connection *>(source->ptr);
        const std::size_t size = std::min(room, self.answer.size() - self.sent);
        std::copy_n(self.answer.data() + self.sent, size, reinterpret_cast<char *>(to));
        self.sent += size;
        if (self.sent == self.answer.size()) {
            *flags |= NGHTTP2_DATA_FLAG_EOF | NGHTTP2_DATA_FLAG_NO_END_STREAM;
            const std::string number = std::to_string(self.status);
            const std::array<nghttp2_nv, 2> trailer{header("grpc-status", number),
                                                    header("grpc-message", self.message)};
            nghttp2_submit_trailer(session, stream, trailer.data(), trailer.size());
        }
        return static_cast<ssize_t>(size);
    }

    void reply(std::int32_t stream, const Answer &what, bool misread)
    {
        answer = framed(misread ? std::string("\x0a\xff\xff\xff\xff\x0f no message") : what.body);
        if (what.status != 0) {
            answer.clear();
        }
        sent = 0;
        status = what.status;
        message = what.message;
        const std::string ok = "200";
        const std::string type = "application/grpc";
        const std::array<nghttp2_nv, 2> headers{header(":status", ok), header("content-type", type)};
        nghttp2_data_provider body{};
        body.source.ptr = this;
        body.read_callback = read_answer;
        nghttp2_submit_response(session, stream, headers.data(), headers.size(), &body);
    }

    void drain()
    {
        const std::uint8_t *bytes = nullptr;
        for (ssize_t size = 0; (size = nghttp2_session_mem_send(session, &bytes)) > 0;) {
            out.append(reinterpret_cast<const char *>(bytes), static_cast<std::size_t>(size));
        }
    }

    void serve(std::int32_t stream)
    {
        const std::string method = path.substr(path.rfind('/') + 1);
        const std::string text = request.size() >= 5 ? request.substr(5) : "";
        const Order order = member.fate_of(method);
        if (order.fate == Fate::refused) {
            reply(stream, {order.status, order.message, ""}, false);
            return;
        }
        if (order.fate == Fate::dropped || order.fate == Fate::unheard || order.fate == Fate::late) {
            over = order.fate == Fate::dropped;
            if (order.fate == Fate::late) {
                const std::lock_guard lock(member.mutex_);
                member.late_.emplace_back(method, text);
            }
            return;
        }
        const Answer answered = member.store_.serve(method, text);
        if (!member.raw_.empty()) {
            out += member.raw_;
            over = true;
            return;
        }
        switch (order.fate) {
        case Fate::lost:
            over = true;
            return;
        case Fate::garbled:
            out += std::string(100, '\xee');
            over = true;
            return;
        case Fate::flooded:
            floods = true;
            return;
        default:
            break;
        }
        reply(stream, answered, order.fate == Fate::misread);
        if (order.fate == Fate::halved || order.fate == Fate::trickled) {
            drain();
            out.resize(out.size() - std::min<std::size_t>(out.size(), 20));
            over = order.fate == Fate::halved;
        }
    }

    // False: it is over.
    bool receive()
    {
        std::array<std::uint8_t, 65536> piece;
        const ssize_t size = recv(fd, piece.data(), piece.size(), 0);
        if (size <= 0) {
            return size < 0 && errno == EAGAIN;
        }
        if (nghttp2_session_mem_recv(session, piece.data(), static_cast<std::size_t>(size)) < 0) {
            return false;
        }
        if (!over) {
            drain();
        }
        return true;
    }

    bool send_out()
    {
        // PING frames: each is well formed, and none is the answer.
        while (floods && out.size() < 100000) {
            out.append(std::string("\0\0\x08\x06\0\0\0\0\0", 9)).append(8, 'x');
        }
        while (!out.empty()) {
            const ssize_t size = send(fd, out.data(), out.size(), MSG_NOSIGNAL);
            if (size < 0) {
                return errno == EAGAIN;
            }
            out.erase(0, static_cast<std::size_t>(size));
        }
        return !over;
    }
};

MemberDouble::MemberDouble(StoreDouble &store) : store_(store)
{
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    struct sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    if (bind(listener_, reinterpret_cast<struct sockaddr *>(&address), size) != 0 || listen(listener_, 64) != 0 ||
        getsockname(listener_, reinterpret_cast<struct sockaddr *>(&address), &size) != 0 ||
        pipe2(wake_, O_CLOEXEC) != 0) {
        abort();
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
}

MemberDouble::~MemberDouble()
{
    close(wake_[1]);
    thread_.join();
    close(wake_[0]);
    close(listener_);
}

void MemberDouble::order(Order order)
{
    const std::lock_guard lock(mutex_);
    orders_.push_back(std::move(order));
}

void MemberDouble::heal()
{
    const std::lock_guard lock(mutex_);
    orders_.clear();
}

Order MemberDouble::fate_of(const std::string &method)
{
    const std::lock_guard lock(mutex_);
    for (auto each = orders_.begin(); each != orders_.end(); ++each) {
        if (each->method.empty() || each->method == method) {
            Order result = *each;
            if (!each->always) {
                orders_.erase(each);
            }
            return result;
        }
    }
    return {};
}

int MemberDouble::late()
{
    const std::lock_guard lock(mutex_);
    return static_cast<int>(late_.size());
}

int MemberDouble::release()
{
    std::vector<std::pair<std::string, std::string>> calls;
    {
        const std::lock_guard lock(mutex_);
        calls.swap(late_);
    }
    for (const auto &[method, request] : calls) {
        (void)store_.serve(method, request);
    }
    return static_cast<int>(calls.size());
}

void MemberDouble::run()
{
    for (;;) {
        std::vector<struct pollfd> waiting{{wake_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
        for (const auto &[fd, connection] : open_) {
            waiting.push_back(
                {fd, static_cast<short>(connection->out.empty() && !connection->floods ? POLLIN : POLLIN | POLLOUT),
                 0});
        }
        (void)poll(waiting.data(), waiting.size(), -1);
        if (waiting[0].revents != 0) {
            open_.clear();
            return;
        }
        if (waiting[1].revents != 0) {
            const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (fd >= 0) {
                const int at_once = 1;
                (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof(at_once));
                ++connections_;
                open_[fd] = std::make_unique<Connection>(*this, fd);
            }
        }
        for (std::size_t i = 2; i < waiting.size(); ++i) {
            Connection &connection = *open_[waiting[i].fd];
            const bool readable = (waiting[i].revents & (POLLIN | POLLHUP | POLLERR)) != 0;
            if (waiting[i].revents != 0 && ((readable && !connection.receive()) || !connection.send_out())) {
                open_.erase(waiting[i].fd);
            }
        }
    }
}

}  // namespace test
