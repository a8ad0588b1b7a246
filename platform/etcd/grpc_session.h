// One HTTP/2 connection to a member, as bytes that come and bytes that go: it has no socket, no clock and no thread. On
// it one call at a time is made, a message to a method and a message back.
//
// Whatever comes in is read within bounds: an answer that is larger than its caller bears, in pieces that are no
// message, or that never ends, is a failure of the session, after which it is good for nothing.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

struct nghttp2_session;

namespace etcd {

// What a member said to a call.
struct GrpcReply {
    static constexpr int no_status = -1;
    int status = no_status;  // 0: done; other numbers refuse; no_status: the answer has none
    std::string message;     // of a refusal, in printable characters
    std::string body;
};

class GrpcSession {
public:
    explicit GrpcSession(std::string authority, bool secure);
    ~GrpcSession();
    GrpcSession(const GrpcSession &) = delete;
    GrpcSession &operator=(const GrpcSession &) = delete;

    // Begins a call. False: no further call can be made on this connection.
    bool ask(const char *path, std::string_view message, std::size_t longest_answer);

    // Takes what came from the member. False: the session is broken, why() tells by what.
    bool feed(std::string_view bytes);

    // Appends what has to go to the member. False as above.
    bool drain(std::string &to);

    bool answered() const { return closed_; }
    const GrpcReply &reply() const { return reply_; }
    const std::string &why() const { return why_; }

private:
    struct Callbacks;

    bool fail(const char *why);
    bool begin_call(std::string_view message, std::size_t longest_answer);
    bool finish_answer();
    void take_header(std::string_view name, std::string_view value);
    void take_data(std::string_view bytes);

    nghttp2_session *session_ = nullptr;
    const std::string authority_;
    const bool secure_;
    std::string request_;  // in its frame
    std::size_t sent_ = 0;
    std::string answer_;  // as it comes, frame and all
    std::size_t longest_ = 0;
    std::size_t received_ = 0;  // in this call, of all kinds
    std::int32_t stream_ = 0;
    int http_status_ = 0;
    bool closed_ = true;
    GrpcReply reply_;
    std::string why_;
};

}  // namespace etcd
