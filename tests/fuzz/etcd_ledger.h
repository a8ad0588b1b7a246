// What was asked of a cluster, held against what became of its keys: each change there is one that was asked for, and made
// once; what was answered as done is there.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>

#include "lock_fence.h"
#include "store_double.h"

namespace fuzz {

// Revisions that somebody else made.
using Foreign = std::set<std::int64_t>;

// A region of NV memory.
class RegionLedger {
public:
    struct Write {
        std::uint64_t offset = 0;
        std::string bytes;
        int made = 0;         // how often the region became so by it
        bool unique = false;  // nobody else writes such bytes
    };

    RegionLedger(test::StoreDouble &store, const Foreign &foreign, unsigned number);

    const std::string &key() const { return key_; }
    // A write that is about to be asked for.
    Write &ask(std::uint64_t offset, std::string bytes, bool unique);
    void somebody_else(std::uint64_t offset, const std::string &bytes, Foreign &theirs);

    // What the outcome of a call means for the slots of the inner lock.
    void written(const Write &write);
    void failed(const Write &write);
    void read(std::uint64_t offset, const std::string &bytes);
    void begin_anew();
    // Or may hold.
    bool holds(unsigned slot) const { return !slots_[slot].held.empty() || slots_[slot].in_doubt; }

    // Judges all changes since the last time.
    void judge();
    // Whether the bytes were there at some time since a revision.
    bool had_since(std::int64_t revision, std::uint64_t offset, const std::string &bytes);

private:
    struct Slot {
        std::string held;              // the claim that was written; empty: none, or in doubt
        bool in_doubt = false;         // a claim failed since
        std::set<std::string> claims;  // all of this process
        std::string seen;              // empty: never
    };

    void judge_change(const std::string &before, const std::string &after);

    test::StoreDouble &store_;
    const Foreign &foreign_;
    const std::string key_;
    const bool is_image_;
    std::deque<Write> writes_;
    std::array<Slot, etcd::slot_count> slots_;
    std::int64_t judged_ = 0;
    std::string now_;
};

// A file of the backup area.
class FileLedger {
public:
    struct Write {
        std::string contents;
        int made = 0;
    };

    FileLedger(test::StoreDouble &store, const Foreign &foreign, std::string name);

    const std::string &name() const { return name_; }
    Write &ask(std::string contents);
    void somebody_else(const std::string &contents, Foreign &theirs);

    void judge();
    // Whether it was so at some time since a revision; "(nothing)": not there.
    bool had_since(std::int64_t revision, const std::string &contents);

private:
    std::string contents_at(std::int64_t revision);

    test::StoreDouble &store_;
    const Foreign &foreign_;
    const std::string name_;
    const std::string key_;
    std::deque<Write> writes_;
    std::int64_t judged_ = 0;
    std::int64_t whole_at_ = 0;                 // the revision at which it was last seen to be
    std::map<std::string, std::string> known_;  // contents of uploads
};

}  // namespace fuzz
