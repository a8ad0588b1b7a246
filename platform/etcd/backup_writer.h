// A file of the backup area that is being written. It is seen when it is published, whole; until then what was there
// stays, whatever becomes of its writer.
//
// Small contents are published in one step. Larger ones go up in chunks before, under an intent that lives for as long
// as its writer keeps its lease alive; the publication takes the intent away, and the chunks of what was there. Chunks
// with neither an intent nor a manifest are left of somebody who died: the next writer of the name removes them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "backup_area.h"

namespace etcd {

class BackupWriter {
public:
    explicit BackupWriter(std::string name) : name_(std::move(name)) {}

    // Takes bytes at an offset: 0 or a negative errno, after which nothing is published. Large contents go up here, so
    // that it is here that their writer hears of a full store.
    int write(BackupArea &area, std::string_view bytes, std::uint64_t offset);

    // Puts what was written in the place of what was there.
    int publish(BackupArea &area);

    // Nothing is to be published.
    void abandon(BackupArea &area);
    void break_off(int error) { broken_ = error; }

    bool written() const { return written_; }
    const std::string &name() const { return name_; }

private:
    struct Chunk {
        std::uint64_t sum = 0;      // of what went up; 0: it has to go up (again)
        std::int64_t revision = 0;  // of what went up last; 0: nothing did
    };

    int begin_upload(BackupArea &area);
    int check_space(BackupArea &area) const;
    int clear_abandoned(BackupArea &area);
    int make_intent(BackupArea &area);
    int keep_intent(BackupArea &area);
    int upload(BackupArea &area, bool all);
    int upload_chunk(BackupArea &area, std::uint64_t number);
    int look_before(BackupArea &area, KeyValue &now);
    int publish_over(BackupArea &area, KeyValue from);
    TxnRequest publication(const FileKeys &keys, const KeyValue &from) const;
    int settle_earlier(BackupArea &area, const KeyValue &now, bool &done);
    bool repeats(const Unpublished &earlier) const;
    int fail(BackupArea &area, const KeyValue &from, int error, bool unknown);
    int fail_unsent(BackupArea &area, const KeyValue &from, int error);
    void finish(BackupArea &area, std::int64_t revision);
    Manifest manifest() const;
    bool is_large() const { return contents_.size() > largest_inline; }

    const std::string name_;
    std::string contents_;
    bool written_ = false;
    int broken_ = 0;
    std::string upload_;
    std::int64_t lease_ = 0;
    std::int64_t intent_revision_ = 0;
    std::int64_t alive_ms_ = 0;
    std::uint32_t chunk_bytes_ = 0;
    std::vector<Chunk> chunks_;
    std::uint64_t space_checked_ = 0;
};

}  // namespace etcd
