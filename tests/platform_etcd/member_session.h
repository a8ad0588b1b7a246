// A member's side of one client's connection: HTTP/2 over a socket, and what it does to each call.
#pragma once

#include <nghttp2/nghttp2.h>

#include <cstdint>
#include <string>

#include "store_double.h"

namespace test {

enum class Fate {
    answered,
    lost,      // carried out; the connection ends without an answer
    dropped,   // not carried out; the connection ends
    unheard,   // not carried out, and no answer: the connection stays
    late,      // kept: carried out when the test says so, and never answered
    halved,    // carried out; a part of the answer comes, then the end
    trickled,  // carried out; the answer comes but for its end, then no more
    garbled,   // carried out; bytes that are no HTTP/2, or those of the order
    flooded,   // carried out; data without end
    misread,   // carried out; an answer that is no message, or the one of the order
    refused,   // not carried out; with the status of the order
    denied,    // carried out; with the status of the order
};

struct Order {
    std::string method;  // empty: any
    Fate fate = Fate::answered;
    int status = 14;
    std::string message = "etcdserver: not now";
    bool always = false;       // not the next such call alone
    std::size_t missing = 20;  // bytes at the end of an answer that is halved or trickled
    std::string bytes = {};    // what is sent instead of an answer
};

// Decides what is done to calls.
class Fates {
public:
    virtual ~Fates() = default;
    virtual Order fate_of(const std::string &method) = 0;
    // A call that is late.
    virtual void keep(const std::string &method, const std::string &request) = 0;
};

class MemberSession {
public:
    // The socket does not block, and is closed by the session.
    MemberSession(StoreDouble &store, Fates &fates, int fd);
    ~MemberSession();
    MemberSession(const MemberSession &) = delete;
    MemberSession &operator=(const MemberSession &) = delete;

    // Take what came, and send what has to go, as far as the socket lets them. False: the session is over.
    bool receive();
    bool send_out();

    bool wants_to_send() const { return !out_.empty() || floods_; }
    bool floods() const { return floods_; }

private:
    struct Callbacks;

    void serve(std::int32_t stream);
    void reply(std::int32_t stream, const Answer &what);
    void send_partly(std::size_t missing);
    void drain();

    StoreDouble &store_;
    Fates &fates_;
    const int fd_;
    nghttp2_session *session_ = nullptr;
    std::string path_;
    std::string request_;
    std::string answer_;
    std::size_t sent_ = 0;
    int status_ = 0;
    std::string message_;
    std::string out_;
    bool over_ = false;  // is to be closed when what is left has gone
    bool floods_ = false;
};

}  // namespace test
