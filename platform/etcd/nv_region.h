// One NV region: the value of one key. Each write is conditional on the revision that it was made from.
//
// A write reads the region, changes its part, and puts the whole if nobody has changed it since; else it begins again
// with what there is now. One key, so that every later write of anybody else kills those that are still on their way:
// a member that hung may bring them to the others long after their writer was told that nobody answered.
//
// A write that went unanswered may have been carried out. Before anything is repeated, the first change after the
// revision it was made from is looked at: if that is it, it is done, whatever came later. Callers repeat what failed,
// so the same holds for the next call with the same bytes to the same place.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "call_checks.h"
#include "client.h"
#include "lock_fence.h"

namespace etcd {

using platform::nv_region_size;

class NvRegion {
public:
    // is_image: it has the inner lock's slots.
    NvRegion(Client &client, std::string key, bool is_image)
        : client_(client), key_(std::move(key)), is_image_(is_image)
    {
    }

    // Return 0 or a negative errno. The range has been checked.
    int read(std::uint64_t offset, void *buffer, std::uint64_t length);
    int write(std::uint64_t offset, const void *buffer, std::uint64_t length);

    // In a child made by fork: what was claimed and what is unanswered is its parent's.
    void forget();

private:
    // A write under way: what it was made from, and what the region becomes by it.
    struct Write {
        std::uint64_t offset = 0;
        std::string bytes;
        KeyValue from;
        std::string becomes;   // the key's value
        bool unknown = false;  // a try went unanswered
        bool lost = false;     // and nobody can tell what became of it
    };
    enum class Settled { done, not_done, failed };

    bool is_current() const { return now_ && connections_ == client_.connections(); }
    int refresh(const Allowed &allowed);
    bool accept(KeyValue found);
    Write begin(std::uint64_t offset, std::string bytes);
    int prepare(Write &write, const Allowed &allowed, bool &over);
    int put(Write &write, const Allowed &allowed, bool &held);
    Settled settle(Write &write, const Allowed &allowed, int &error);
    int give_up(Write &write, int error);
    std::string contents() const;

    Client &client_;
    const std::string key_;
    const bool is_image_;
    std::optional<KeyValue> now_;  // as it was seen last
    std::uint64_t connections_ = 0;
    std::optional<Write> unanswered_;
    LockFence fence_;
};

}  // namespace etcd
