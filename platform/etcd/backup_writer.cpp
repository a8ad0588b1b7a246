#include "backup_writer.h"

#include <errno.h>
#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "checksum.h"
#include "history.h"

namespace etcd {
namespace {

constexpr int most_uploads = 1000;  // that are looked through for abandoned ones

std::string new_upload()
{
    std::uint64_t number = 0;
    while (getrandom(&number, sizeof(number), 0) != static_cast<ssize_t>(sizeof(number))) {
    }
    std::array<char, 17> text{};
    (void)snprintf(text.data(), text.size(), "%016llx", static_cast<unsigned long long>(number));
    return text.data();
}

Step put(std::string key, std::string value, std::int64_t lease = 0)
{
    return {std::nullopt, PutRequest{std::move(key), std::move(value), lease}, std::nullopt};
}

Step erase(std::string key, std::string end = "")
{
    return {std::nullopt, std::nullopt, DeleteRequest{std::move(key), std::move(end)}};
}

Step get(std::string key) { return {RangeRequest{std::move(key), "", 0, 0, false}, std::nullopt, std::nullopt}; }

}  // namespace

int BackupWriter::write(BackupArea &area, std::string_view bytes, std::uint64_t offset)
{
    if (broken_ != 0) {
        return broken_;
    }
    written_ = true;
    if (upload_.empty()) {
        upload_ = new_upload();
        chunk_bytes_ = area.settings().chunk_bytes;
    }
    const std::uint64_t end = offset + bytes.size();
    const std::uint64_t first_changed = std::min<std::uint64_t>(offset, contents_.size());
    if (contents_.size() < offset) {
        contents_.resize(offset);
    }
    contents_.replace(offset, bytes.size(), bytes);
    chunks_.resize((contents_.size() + chunk_bytes_ - 1) / chunk_bytes_);
    for (std::uint64_t at = first_changed / chunk_bytes_; at * chunk_bytes_ < end; ++at) {
        chunks_[at].sum = 0;
    }
    if (is_large()) {
        broken_ = begin_upload(area);
        if (broken_ == 0) {
            broken_ = upload(area, bytes.size() >= chunk_bytes_);
        }
    }
    return broken_;
}

int BackupWriter::check_space(BackupArea &area) const
{
    StatusResponse status;
    if (const int error = area.client().status(status, area.client().allow_transfer()); error != 0) {
        return error;
    }
    const auto in_use = static_cast<std::uint64_t>(std::max<std::int64_t>(status.bytes_in_use, 0));
    const std::uint64_t share = area.settings().limit_bytes / 100 * area.settings().quota_share;
    return in_use + 2 * contents_.size() > share ? -ENOSPC : 0;
}

int BackupWriter::begin_upload(BackupArea &area)
{
    if (contents_.size() > 2 * space_checked_) {
        if (const int error = check_space(area); error != 0) {
            return error;
        }
        space_checked_ = contents_.size();
    }
    if (intent_revision_ != 0) {
        return 0;
    }
    if (const int error = clear_abandoned(area); error != 0) {
        return error;
    }
    return make_intent(area);
}

// Each upload of the name that has chunks: one that is neither the manifest's nor anybody's intent is removed.
int BackupWriter::clear_abandoned(BackupArea &area)
{
    const FileKeys keys = area.keys_of(name_);
    KeyValue now;
    Manifest manifest;
    const int looked = area.look_up(keys, now, manifest);
    if (looked != 0 && looked != -EIO) {  // a damaged manifest has no chunks that could be read
        return looked;
    }
    RangeRequest request{keys.chunks, end_of_prefix(keys.chunks), 1, 0, true};
    for (int i = 0; i < most_uploads; ++i) {
        RangeResponse response;
        if (const int error = area.client().range(request, response, area.client().allow_transfer()); error != 0) {
            return error;
        }
        if (response.found.empty() || response.found[0].key.compare(0, keys.chunks.size(), keys.chunks) != 0) {
            return 0;
        }
        const std::string &key = response.found[0].key;
        const std::string upload = key.substr(keys.chunks.size(), key.rfind('/') - keys.chunks.size());
        const std::string prefix = keys.chunks_of(upload);
        request.key = end_of_prefix(prefix);
        if (upload == manifest.upload || upload == upload_) {
            continue;
        }
        TxnRequest clear;
        clear.conditions = {{keys.intent(upload), Condition::Of::made_at, 0},
                            {keys.manifest, Condition::Of::changed_at, now.mod_revision}};
        clear.then = {erase(prefix, end_of_prefix(prefix))};
        TxnResponse cleared;
        bool maybe = false;  // it is the same however often it is done
        if (const int error = area.client().txn(clear, cleared, area.client().allow_chunk(), maybe); error != 0) {
            return error;
        }
    }
    return 0;
}

int BackupWriter::make_intent(BackupArea &area)
{
    Client &client = area.client();
    LeaseResponse lease;
    if (const int error = client.grant(area.settings().lease_s, lease, client.allow_transfer()); error != 0) {
        return error;
    }
    lease_ = lease.id;
    alive_ms_ = now_ms();
    const std::string intent = area.keys_of(name_).intent(upload_);
    TxnRequest request;
    request.conditions = {{intent, Condition::Of::made_at, 0}};
    request.then = {put(intent, "1", lease_)};
    request.otherwise = {get(intent)};
    TxnResponse response;
    bool maybe = false;  // its name is nobody else's: whatever stands there is it
    if (const int error = client.txn(request, response, client.allow_transfer(), maybe); error != 0) {
        return error;
    }
    KeyValue found;
    if (!response.held && (response.ranges.size() != 1 || !take_single(response.ranges[0], intent, found))) {
        return -EPROTO;
    }
    intent_revision_ = response.held ? response.revision : found.create_revision;
    return intent_revision_ != 0 ? 0 : -ESTALE;
}

int BackupWriter::keep_intent(BackupArea &area)
{
    const std::int64_t now = now_ms();
    if (now - alive_ms_ < std::int64_t{area.settings().lease_s} * 1000 / 3) {
        return 0;
    }
    LeaseResponse response;
    const int error = area.client().keep_alive(lease_, response, area.client().allow_transfer());
    alive_ms_ = now;
    return error == 0 && response.seconds <= 0 ? -ESTALE : error;
}

int BackupWriter::upload_chunk(BackupArea &area, std::uint64_t number)
{
    const FileKeys keys = area.keys_of(name_);
    const std::string key = keys.chunk(upload_, number);
    const auto bytes = std::string_view(contents_).substr(number * chunk_bytes_, chunk_bytes_);
    Chunk &chunk = chunks_[number];
    std::uint64_t sum = 0;
    const std::string packed = pack_chunk(number, bytes, sum);
    TxnRequest request;
    // A chunk can become another one. A try that went unanswered may come late: not over what came after it.
    request.conditions = {{keys.intent(upload_), Condition::Of::made_at, intent_revision_},
                          {key, Condition::Of::changed_at, chunk.revision}};
    request.then = {put(key, packed)};
    request.otherwise = {get(key)};
    TxnResponse response;
    bool maybe = false;
    if (const int error = area.client().txn(request, response, area.client().allow_chunk(), maybe); error != 0) {
        return error;
    }
    KeyValue found;
    if (response.held) {
        found.mod_revision = response.revision;
    } else if (response.ranges.size() != 1 || !take_single(response.ranges[0], key, found)) {
        return -EIO;
    } else if (!maybe || found.value != packed) {  // nobody else writes it: there it is by the earlier try
        return -ESTALE;
    }
    chunk = {sum, found.mod_revision};
    return 0;
}

// all: the last chunk too, which more bytes may come to.
int BackupWriter::upload(BackupArea &area, bool all)
{
    const std::uint64_t count = all ? chunks_.size() : contents_.size() / chunk_bytes_;
    for (std::uint64_t number = 0; number < count; ++number) {
        if (chunks_[number].sum != 0) {
            continue;
        }
        int error = keep_intent(area);
        if (error == 0) {
            error = upload_chunk(area, number);
        }
        if (error != 0) {
            return error;
        }
        area.let_pass();
    }
    return 0;
}

Manifest BackupWriter::manifest() const
{
    Manifest manifest;
    manifest.length = contents_.size();
    manifest.upload = upload_;
    if (!is_large()) {
        manifest.contents = contents_;
        manifest.checksum = checksum(contents_);
        return manifest;
    }
    manifest.chunk_bytes = chunk_bytes_;
    for (const Chunk &chunk : chunks_) {
        manifest.checksum = add_checksum(manifest.checksum, chunk.sum);
    }
    return manifest;
}

TxnRequest BackupWriter::publication(const FileKeys &keys, const KeyValue &from) const
{
    TxnRequest request;
    request.conditions = {{keys.manifest, Condition::Of::changed_at, from.mod_revision}};
    request.then = {put(keys.manifest, encode(manifest()))};
    request.otherwise = {get(keys.manifest)};
    if (intent_revision_ != 0) {
        request.conditions.push_back({keys.intent(upload_), Condition::Of::made_at, intent_revision_});
        request.then.push_back(erase(keys.intent(upload_)));
    }
    Manifest before;
    if (decode(from.value, before) && before.chunk_bytes != 0) {
        const std::string prefix = keys.chunks_of(before.upload);
        request.then.push_back(erase(prefix, end_of_prefix(prefix)));
    }
    return request;
}

// The earlier publication may have been carried out, and was of the same contents.
bool BackupWriter::repeats(const Unpublished &earlier) const
{
    const Manifest mine = manifest();
    return earlier.unknown && earlier.length == mine.length && earlier.checksum == mine.checksum;
}

// A publication of the same contents to the same name went unanswered earlier: its writer repeats it now. Where it was
// carried out it is done, whatever came later.
int BackupWriter::settle_earlier(BackupArea &area, const KeyValue &now, bool &done)
{
    const auto found = area.unpublished().find(name_);
    if (found == area.unpublished().end()) {
        return 0;
    }
    const Unpublished &earlier = found->second;
    int error = 0;
    if (repeats(earlier)) {
        const Published published = settle_publication(area, earlier.from, now, earlier.upload, error);
        done = published == Published::yes;
        if (published == Published::unknown) {
            return error;
        }
        if (published == Published::not_yet) {
            return 0;  // it may come yet: it is kept, and is one's own if it does
        }
    }
    area.unpublished().erase(found);
    return 0;
}

int BackupWriter::fail(BackupArea &area, const KeyValue &from, int error, bool unknown)
{
    const Manifest mine = manifest();
    area.unpublished()[name_] = {error, unknown, from, upload_, mine.length, mine.checksum};
    if (!unknown && error != -ETIMEDOUT) {
        abandon(area);
    }
    return error;
}

// Fails before a publication was sent. An earlier one of the same contents that went unanswered is still what whoever
// repeats it asks about. Contents that did not go up whole can't be told from it.
int BackupWriter::fail_unsent(BackupArea &area, const KeyValue &from, int error)
{
    const auto found = area.unpublished().find(name_);
    const bool is_kept =
        found != area.unpublished().end() && (broken_ != 0 ? found->second.unknown : repeats(found->second));
    if (!is_kept) {
        return fail(area, from, error, false);
    }
    found->second.error = error;
    if (error != -ETIMEDOUT) {
        abandon(area);
    }
    return error;
}

void BackupWriter::finish(BackupArea &area, std::int64_t revision)
{
    area.unpublished().erase(name_);
    if (lease_ != 0) {
        // Best effort: a lease ends by itself, and the members compact too, later.
        (void)area.client().revoke(lease_, area.client().allow_transfer());
        (void)area.client().compact(revision, area.client().allow_transfer());
        lease_ = 0;
    }
}

int BackupWriter::publish_over(BackupArea &area, KeyValue from)
{
    const FileKeys keys = area.keys_of(name_);
    const Allowed allowed = is_large() ? area.client().allow_chunk() : area.client().allow_transfer();
    for (;;) {
        bool unknown = false;
        TxnResponse response;
        int error = area.client().txn(publication(keys, from), response, allowed, unknown);
        if (error != 0) {
            return fail(area, from, error, unknown);
        }
        if (response.held) {
            finish(area, response.revision);
            return 0;
        }
        KeyValue now;
        if (response.ranges.size() != 1 || !take_single(response.ranges[0], keys.manifest, now)) {
            return fail(area, from, -EIO, unknown);
        }
        if (unknown) {
            const Published published = settle_publication(area, from, now, upload_, error);
            if (published == Published::yes) {
                finish(area, now.mod_revision);
                return 0;
            }
            if (published == Published::unknown) {
                return fail(area, from, error, true);
            }
        }
        bool done = false;
        if (error = settle_earlier(area, now, done); error != 0 || done) {
            abandon(area);
            return error;
        }
        if (now.mod_revision == from.mod_revision) {
            return fail(area, from, -ESTALE, false);  // it is the intent that is gone
        }
        if (allowed.deadline.passed()) {
            return fail(area, from, -ETIMEDOUT, false);
        }
        from = now;  // somebody else has published meanwhile: the last one counts
    }
}

// What is there before a publication. Chunks that small contents find there are somebody's who died, or theirs that
// they replace.
int BackupWriter::look_before(BackupArea &area, KeyValue &now)
{
    const FileKeys keys = area.keys_of(name_);
    TxnRequest request;
    request.then = {get(keys.manifest), {RangeRequest{keys.chunks, end_of_prefix(keys.chunks), 1, 0, true}, {}, {}}};
    TxnResponse response;
    bool maybe = false;  // it changes nothing
    if (const int error = area.client().txn(request, response, area.client().allow_transfer(), maybe); error != 0) {
        return error;
    }
    if (response.ranges.size() != 2 || !take_single(response.ranges[0], keys.manifest, now)) {
        return -EIO;
    }
    return is_large() || response.ranges[1].found.empty() ? 0 : clear_abandoned(area);
}

int BackupWriter::publish(BackupArea &area)
{
    if (broken_ != 0) {
        return fail_unsent(area, {}, broken_);
    }
    if (is_large()) {
        broken_ = upload(area, true);
    }
    KeyValue now;
    int error = broken_ != 0 ? broken_ : look_before(area, now);
    bool done = false;
    if (error == 0) {
        error = settle_earlier(area, now, done);
    }
    if (error != 0) {
        return fail_unsent(area, now, error);
    }
    if (done) {
        abandon(area);
        return 0;
    }
    return publish_over(area, now);
}

void BackupWriter::abandon(BackupArea &area)
{
    if (lease_ == 0) {
        return;
    }
    // Best effort: without it the intent ends with its lease, and the next writer removes the chunks.
    const FileKeys keys = area.keys_of(name_);
    const std::string prefix = keys.chunks_of(upload_);
    TxnRequest request;
    request.conditions = {{keys.intent(upload_), Condition::Of::made_at, intent_revision_}};
    request.then = {erase(keys.intent(upload_)), erase(prefix, end_of_prefix(prefix))};
    TxnResponse response;
    bool maybe = false;
    if (area.client().txn(request, response, area.client().allow_transfer(), maybe) == 0) {
        (void)area.client().revoke(lease_, area.client().allow_transfer());
    }
    lease_ = 0;
}

}  // namespace etcd
