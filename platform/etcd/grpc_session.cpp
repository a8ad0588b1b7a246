#include "grpc_session.h"

#include <nghttp2/nghttp2.h>

#include <algorithm>
#include <array>
#include <charconv>

namespace etcd {
namespace {

constexpr std::size_t head_size = 5;  // of a message: whether it is compressed, and its length
constexpr std::size_t longest_message_text = 200;
constexpr std::size_t longest_beside = std::size_t{1} << 17U;  // headers and frames around an answer
constexpr std::int32_t window = 1 << 22;
constexpr int http_ok = 200;

nghttp2_nv header(std::string_view name, std::string_view value)
{
    // The library takes bytes that it doesn't change by a pointer to bytes that it might.
    auto *name_bytes = reinterpret_cast<std::uint8_t *>(const_cast<char *>(name.data()));
    auto *value_bytes = reinterpret_cast<std::uint8_t *>(const_cast<char *>(value.data()));
    return {name_bytes, value_bytes, name.size(), value.size(), NGHTTP2_NV_FLAG_NONE};
}

// A member's text goes into a trace: one line, of bounded length.
std::string printable(std::string_view text)
{
    std::string result(text.substr(0, longest_message_text));
    std::replace_if(
        result.begin(), result.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return result;
}

int number_of(std::string_view text)
{
    int number = -1;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
    return parsed.ec == std::errc() && parsed.ptr == text.data() + text.size() ? number : -1;
}

GrpcSession &session_of(void *user) { return *static_cast<GrpcSession *>(user); }

std::string_view text_of(const std::uint8_t *bytes, std::size_t size)
{
    return {reinterpret_cast<const char *>(bytes), size};
}

}  // namespace

struct GrpcSession::Callbacks {
    static int on_header(nghttp2_session * /*session*/, const nghttp2_frame *frame, const std::uint8_t *name,
                         std::size_t name_size, const std::uint8_t *value, std::size_t value_size,
                         std::uint8_t /*flags*/, void *user)
    {
        if (frame->hd.stream_id == session_of(user).stream_) {
            session_of(user).take_header(text_of(name, name_size), text_of(value, value_size));
        }
        return 0;
    }

    static int on_data(nghttp2_session * /*session*/, std::uint8_t /*flags*/, std::int32_t stream,
                       const std::uint8_t *bytes, std::size_t size, void *user)
    {
        if (stream == session_of(user).stream_) {
            session_of(user).take_data(text_of(bytes, size));
        }
        return 0;
    }

    static int on_close(nghttp2_session * /*session*/, std::int32_t stream, std::uint32_t /*error*/, void *user)
    {
        if (stream == session_of(user).stream_) {
            session_of(user).closed_ = true;
        }
        return 0;
    }

    static ssize_t read_request(nghttp2_session * /*session*/, std::int32_t /*stream*/, std::uint8_t *to,
                                std::size_t room, std::uint32_t *flags, nghttp2_data_source *source, void * /*user*/)
    {
        auto &self = session_of(source->ptr);
        const std::size_t size = std::min(room, self.request_.size() - self.sent_);
        std::copy_n(self.request_.data() + self.sent_, size, reinterpret_cast<char *>(to));
        self.sent_ += size;
        if (self.sent_ == self.request_.size()) {
            *flags |= NGHTTP2_DATA_FLAG_EOF;
        }
        return static_cast<ssize_t>(size);
    }
};

GrpcSession::GrpcSession(std::string authority, bool secure) : authority_(std::move(authority)), secure_(secure)
{
    nghttp2_session_callbacks *callbacks = nullptr;
    if (nghttp2_session_callbacks_new(&callbacks) != 0) {
        fail("no memory");
        return;
    }
    nghttp2_session_callbacks_set_on_header_callback(callbacks, Callbacks::on_header);
    nghttp2_session_callbacks_set_on_data_chunk_recv_callback(callbacks, Callbacks::on_data);
    nghttp2_session_callbacks_set_on_stream_close_callback(callbacks, Callbacks::on_close);
    const int made = nghttp2_session_client_new(&session_, callbacks, this);
    nghttp2_session_callbacks_del(callbacks);
    const std::array<nghttp2_settings_entry, 2> settings{
        {{NGHTTP2_SETTINGS_ENABLE_PUSH, 0},
         {NGHTTP2_SETTINGS_INITIAL_WINDOW_SIZE, static_cast<std::uint32_t>(window)}}};
    if (made != 0 || nghttp2_submit_settings(session_, NGHTTP2_FLAG_NONE, settings.data(), settings.size()) != 0 ||
        nghttp2_session_set_local_window_size(session_, NGHTTP2_FLAG_NONE, 0, window) != 0) {
        fail("no memory");
    }
}

GrpcSession::~GrpcSession() { nghttp2_session_del(session_); }

bool GrpcSession::fail(const char *why)
{
    if (why_.empty()) {
        why_ = why;
    }
    return false;
}

bool GrpcSession::begin_call(std::string_view message, std::size_t longest_answer)
{
    if (!why_.empty() || nghttp2_session_want_read(session_) == 0) {
        return fail("the member has ended the connection");
    }
    const std::size_t size = message.size();
    request_.assign(1, '\0');
    for (unsigned shift = 32; shift > 0;) {
        shift -= 8;
        request_.push_back(static_cast<char>(size >> shift & 0xffU));
    }
    request_.append(message);
    sent_ = 0;
    answer_.clear();
    longest_ = longest_answer + head_size;
    received_ = 0;
    http_status_ = 0;
    reply_ = {};
    closed_ = false;
    return true;
}

bool GrpcSession::ask(const char *path, std::string_view message, std::size_t longest_answer)
{
    if (!begin_call(message, longest_answer)) {
        return false;
    }
    const std::array<nghttp2_nv, 7> headers{
        header(":method", "POST"),        header(":scheme", secure_ ? "https" : "http"), header(":path", path),
        header(":authority", authority_), header("content-type", "application/grpc"),    header("te", "trailers"),
        header("user-agent", "kesta")};
    nghttp2_data_provider body{};
    body.source.ptr = this;
    body.read_callback = Callbacks::read_request;
    stream_ = nghttp2_submit_request(session_, nullptr, headers.data(), headers.size(), &body, nullptr);
    return stream_ > 0 || fail("the connection takes no further call");
}

void GrpcSession::take_header(std::string_view name, std::string_view value)
{
    if (name == ":status") {
        http_status_ = number_of(value);
    } else if (name == "grpc-status") {
        reply_.status = number_of(value);
    } else if (name == "grpc-message") {
        reply_.message = printable(value);
    }
}

void GrpcSession::take_data(std::string_view bytes)
{
    if (answer_.size() + bytes.size() > longest_) {
        fail("an answer is larger than any can be");
        return;
    }
    answer_.append(bytes);
}

// A call is over: its answer is one whole message, or none with a refusal.
bool GrpcSession::finish_answer()
{
    if (http_status_ != http_ok || reply_.status < 0) {
        return fail("an answer is cut short");
    }
    if (reply_.status != 0) {
        return true;
    }
    if (answer_.size() < head_size || answer_[0] != '\0') {
        return fail("an answer is no message");
    }
    std::size_t size = 0;
    for (std::size_t i = 1; i < head_size; ++i) {
        size = size << 8U | static_cast<unsigned char>(answer_[i]);
    }
    if (size != answer_.size() - head_size) {
        return fail("an answer is not as long as it says");
    }
    answer_.erase(0, head_size);
    reply_.body.swap(answer_);
    return true;
}

bool GrpcSession::feed(std::string_view bytes)
{
    if (!why_.empty()) {
        return false;
    }
    const bool was_answered = closed_;
    received_ += bytes.size();
    if (received_ > longest_ + longest_beside) {
        return fail("a member does not end its answer");
    }
    const auto *data = reinterpret_cast<const std::uint8_t *>(bytes.data());
    if (nghttp2_session_mem_recv(session_, data, bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        return fail("what a member sends is not HTTP/2");
    }
    if (!why_.empty()) {
        return false;
    }
    return was_answered || !closed_ || finish_answer();
}

bool GrpcSession::drain(std::string &to)
{
    if (!why_.empty()) {
        return false;
    }
    for (;;) {
        const std::uint8_t *bytes = nullptr;
        const ssize_t size = nghttp2_session_mem_send(session_, &bytes);
        if (size < 0) {
            return fail("no memory");
        }
        if (size == 0) {
            return closed_ || nghttp2_session_want_read(session_) != 0 || fail("the member has ended the connection");
        }
        to.append(text_of(bytes, static_cast<std::size_t>(size)));
    }
}

}  // namespace etcd
