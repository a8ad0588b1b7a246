// What a member of an etcd cluster may send: the first byte says how the rest is meant.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "contract.h"
#include "grpc_session.h"
#include "manifest.h"
#include "messages.h"

using fuzz::require;

namespace {

constexpr std::size_t longest_answer = 4096;

// Bytes on the connection, in pieces of the size that the first of them gives.
void converse(std::string_view bytes)
{
    etcd::GrpcSession session("127.0.0.1:2379", false);
    std::string sent;
    require(session.ask("/etcdserverpb.KV/Range", "question", longest_answer) && session.drain(sent), "no call begins");
    const std::size_t piece = bytes.empty() ? 1 : 1 + static_cast<unsigned char>(bytes[0]);
    for (std::size_t at = 1; at < bytes.size(); at += piece) {
        if (!session.feed(bytes.substr(at, piece)) || !session.drain(sent)) {
            require(!session.why().empty(), "a failure has no reason");
            return;
        }
        require(session.reply().body.size() <= longest_answer, "an answer is longer than any may be");
    }
}

template <typename Response>
void read_as(std::string_view bytes)
{
    Response response;
    (void)etcd::decode(bytes, response);
}

void read_manifest(std::string_view bytes)
{
    etcd::Manifest manifest;
    if (!etcd::decode(bytes, manifest)) {
        return;
    }
    // What is taken for whole is written and read as the same.
    etcd::Manifest again;
    require(etcd::decode(etcd::encode(manifest), again), "what was read can't be read again");
    require(again.size() == manifest.size() && again.contents == manifest.contents, "another manifest came back");
    require(manifest.chunk_bytes != 0 || manifest.contents.size() == manifest.length, "contents of another length");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    const std::string_view bytes(reinterpret_cast<const char *>(data) + 1, size - 1);
    switch (data[0] % 6) {
    case 0:
        read_as<etcd::RangeResponse>(bytes);
        break;
    case 1:
        read_as<etcd::TxnResponse>(bytes);
        break;
    case 2:
        read_as<etcd::LeaseResponse>(bytes);
        break;
    case 3:
        read_as<etcd::StatusResponse>(bytes);
        break;
    case 4:
        read_manifest(bytes);
        break;
    default:
        converse(bytes);
        break;
    }
    return 0;
}
