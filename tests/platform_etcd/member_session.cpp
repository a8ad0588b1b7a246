#include "member_session.h"

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>

namespace test {
namespace {

constexpr std::size_t head_size = 5;  // of a message: whether it is compressed, and its length
constexpr const char *no_message = "\x0a\xff\xff\xff\xff\x0f no message";

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

MemberSession &session_of(void *user) { return *static_cast<MemberSession *>(user); }

}  // namespace

struct MemberSession::Callbacks {
    static int on_header(nghttp2_session * /*session*/, const nghttp2_frame * /*frame*/, const std::uint8_t *name,
                         std::size_t name_size, const std::uint8_t *value, std::size_t value_size,
                         std::uint8_t /*flags*/, void *user)
    {
        if (std::string(reinterpret_cast<const char *>(name), name_size) == ":path") {
            session_of(user).path_.assign(reinterpret_cast<const char *>(value), value_size);
        }
        return 0;
    }

    static int on_data(nghttp2_session * /*session*/, std::uint8_t /*flags*/, std::int32_t /*stream*/,
                       const std::uint8_t *bytes, std::size_t size, void *user)
    {
        session_of(user).request_.append(reinterpret_cast<const char *>(bytes), size);
        return 0;
    }

    static int on_frame(nghttp2_session * /*session*/, const nghttp2_frame *frame, void *user)
    {
        MemberSession &self = session_of(user);
        const bool whole = (frame->hd.flags & NGHTTP2_FLAG_END_STREAM) != 0;
        if (whole && (frame->hd.type == NGHTTP2_DATA || frame->hd.type == NGHTTP2_HEADERS)) {
            self.serve(frame->hd.stream_id);
            self.request_.clear();
        }
        return 0;
    }

    static ssize_t read_answer(nghttp2_session *session, std::int32_t stream, std::uint8_t *to, std::size_t room,
                               std::uint32_t *flags, nghttp2_data_source *source, void * /*user*/)
    {
        MemberSession &self = session_of(source->ptr);
        const std::size_t size = std::min(room, self.answer_.size() - self.sent_);
        std::copy_n(self.answer_.data() + self.sent_, size, reinterpret_cast<char *>(to));
        self.sent_ += size;
        if (self.sent_ == self.answer_.size()) {
            *flags |= NGHTTP2_DATA_FLAG_EOF | NGHTTP2_DATA_FLAG_NO_END_STREAM;
            const std::string number = std::to_string(self.status_);
            const std::array<nghttp2_nv, 2> trailer{header("grpc-status", number),
                                                    header("grpc-message", self.message_)};
            nghttp2_submit_trailer(session, stream, trailer.data(), trailer.size());
        }
        return static_cast<ssize_t>(size);
    }
};

MemberSession::MemberSession(StoreDouble &store, Fates &fates, int fd) : store_(store), fates_(fates), fd_(fd)
{
    nghttp2_session_callbacks *callbacks = nullptr;
    nghttp2_session_callbacks_new(&callbacks);
    nghttp2_session_callbacks_set_on_header_callback(callbacks, Callbacks::on_header);
    nghttp2_session_callbacks_set_on_data_chunk_recv_callback(callbacks, Callbacks::on_data);
    nghttp2_session_callbacks_set_on_frame_recv_callback(callbacks, Callbacks::on_frame);
    nghttp2_session_server_new(&session_, callbacks, this);
    nghttp2_session_callbacks_del(callbacks);
    nghttp2_submit_settings(session_, NGHTTP2_FLAG_NONE, nullptr, 0);
    (void)nghttp2_session_set_local_window_size(session_, NGHTTP2_FLAG_NONE, 0, 1 << 24);
}

MemberSession::~MemberSession()
{
    nghttp2_session_del(session_);
    close(fd_);
}

void MemberSession::reply(std::int32_t stream, const Answer &what)
{
    answer_ = what.status == 0 ? framed(what.body) : "";
    sent_ = 0;
    status_ = what.status;
    message_ = what.message;
    const std::string ok = "200";
    const std::string type = "application/grpc";
    const std::array<nghttp2_nv, 2> headers{header(":status", ok), header("content-type", type)};
    nghttp2_data_provider body{};
    body.source.ptr = this;
    body.read_callback = Callbacks::read_answer;
    nghttp2_submit_response(session_, stream, headers.data(), headers.size(), &body);
}

void MemberSession::send_partly(std::size_t missing)
{
    drain();
    out_.resize(out_.size() - std::min(out_.size(), missing));
}

void MemberSession::drain()
{
    const std::uint8_t *bytes = nullptr;
    for (ssize_t size = 0; (size = nghttp2_session_mem_send(session_, &bytes)) > 0;) {
        out_.append(reinterpret_cast<const char *>(bytes), static_cast<std::size_t>(size));
    }
}

void MemberSession::serve(std::int32_t stream)
{
    const std::string method = path_.substr(path_.rfind('/') + 1);
    const std::string text = request_.size() >= head_size ? request_.substr(head_size) : "";
    const Order order = fates_.fate_of(method);
    if (order.fate == Fate::refused) {
        reply(stream, {order.status, order.message, ""});
        return;
    }
    if (order.fate == Fate::dropped || order.fate == Fate::unheard || order.fate == Fate::late) {
        over_ = order.fate == Fate::dropped;
        if (order.fate == Fate::late) {
            fates_.keep(method, text);
        }
        return;
    }
    const Answer answered = store_.serve(method, text);
    switch (order.fate) {
    case Fate::lost:
        over_ = true;
        break;
    case Fate::garbled:
        out_ += order.bytes.empty() ? std::string(100, '\xee') : order.bytes;
        over_ = true;
        break;
    case Fate::flooded:
        floods_ = true;
        break;
    case Fate::misread:
        reply(stream, {0, "", order.bytes.empty() ? no_message : order.bytes});
        break;
    case Fate::denied:
        reply(stream, {order.status, order.message, ""});
        break;
    default:
        reply(stream, answered);
        break;
    }
    if (order.fate == Fate::halved || order.fate == Fate::trickled) {
        send_partly(order.missing);
        over_ = order.fate == Fate::halved;
    }
}

bool MemberSession::receive()
{
    std::array<std::uint8_t, 65536> piece;
    const ssize_t size = recv(fd_, piece.data(), piece.size(), 0);
    if (size <= 0) {
        return size < 0 && errno == EAGAIN;
    }
    if (nghttp2_session_mem_recv(session_, piece.data(), static_cast<std::size_t>(size)) < 0) {
        return false;
    }
    if (!over_) {
        drain();
    }
    return true;
}

bool MemberSession::send_out()
{
    // PING frames: each is well formed, and none is the answer.
    while (floods_ && out_.size() < 100000) {
        out_.append(std::string("\0\0\x08\x06\0\0\0\0\0", 9)).append(8, 'x');
    }
    while (!out_.empty()) {
        const ssize_t size = send(fd_, out_.data(), out_.size(), MSG_NOSIGNAL);
        if (size < 0) {
            return errno == EAGAIN;
        }
        out_.erase(0, static_cast<std::size_t>(size));
    }
    return !over_;
}

}  // namespace test
