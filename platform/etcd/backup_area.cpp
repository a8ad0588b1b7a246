#include "backup_area.h"

#include <errno.h>

#include "history.h"

namespace etcd {

bool is_of_upload(const std::string &stored, const std::string &upload)
{
    Manifest manifest;
    return decode(stored, manifest) && manifest.upload == upload;
}

Published settle_publication(BackupArea &area, const KeyValue &from, const KeyValue &now, const std::string &upload,
                             int &error)
{
    if (is_of_upload(now.value, upload)) {
        return Published::yes;
    }
    KeyValue change;
    switch (first_change(area.client(), from, now, area.client().allow_transfer(), change, error)) {
    case History::found:
        return is_of_upload(change.value, upload) ? Published::yes : Published::no;
    case History::unchanged:
        return Published::not_yet;
    case History::lost:
        error = -ESTALE;
        return Published::unknown;
    default:
        return Published::unknown;
    }
}

int BackupArea::look_up(const FileKeys &keys, KeyValue &found, Manifest &manifest)
{
    RangeRequest request;
    request.key = keys.manifest;
    RangeResponse response;
    if (const int error = client_.range(request, response, client_.allow_transfer()); error != 0) {
        return error;
    }
    if (!take_single(response, keys.manifest, found)) {
        return -EIO;
    }
    manifest = {};
    return found.version == 0 || decode(found.value, manifest) ? 0 : -EIO;
}

namespace {

// The contents of a name are to be those that were written last by this process; where their publication failed, or
// nobody knows, a size would be recorded for other ones.
int check_published(BackupArea &area, const std::string &name, const KeyValue &found)
{
    const auto failed = area.unpublished().find(name);
    if (failed == area.unpublished().end()) {
        return 0;
    }
    const int error = failed->second.error;
    const bool published = failed->second.unknown && is_of_upload(found.value, failed->second.upload);
    area.unpublished().erase(failed);
    return published ? 0 : error;
}

}  // namespace

int BackupArea::record_size(const std::string &name, std::uint64_t size)
{
    const FileKeys keys = keys_of(name);
    KeyValue seen;
    Manifest manifest;
    int error = look_up(keys, seen, manifest);
    if (error == 0 && seen.version == 0) {
        error = -ENOENT;
    }
    if (error == 0) {
        error = check_published(*this, name, seen);
    }
    const std::string upload = manifest.upload;
    const Allowed allowed = client_.allow_transfer();
    bool unknown = false;
    while (error == 0 && manifest.size() != size) {
        manifest.recorded = size == manifest.length ? std::nullopt : std::optional(size);
        TxnRequest request;
        request.conditions = {{keys.manifest, Condition::Of::changed_at, seen.mod_revision}};
        request.then = {{std::nullopt, PutRequest{keys.manifest, encode(manifest), 0}, std::nullopt}};
        request.otherwise = {{RangeRequest{keys.manifest, "", 0, 0, false}, std::nullopt, std::nullopt}};
        TxnResponse response;
        error = client_.txn(request, response, allowed, unknown);
        if (error != 0 || response.held) {
            return error;
        }
        KeyValue now;
        if (response.ranges.size() != 1 || !take_single(response.ranges[0], keys.manifest, now)) {
            return -EIO;
        }
        KeyValue change;
        if (unknown && first_change(client_, seen, now, allowed, change, error) == History::found &&
            change.value == encode(manifest)) {
            return 0;
        }
        unknown = false;
        seen = now;
        // Other contents have come, whose size is not this one.
        error = !decode(seen.value, manifest) ? -EIO : manifest.upload != upload ? -ESTALE : error;
    }
    return error;
}

}  // namespace etcd
