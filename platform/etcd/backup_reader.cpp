// Chunks are read at the revision of the manifest: so they are those that belong to it, also where the file is replaced
// meanwhile. Any upload of anybody may compact that revision away; then a chunk is read as it is now. Its key is of its
// upload alone, so it is the right one, or gone.
#include "backup_reader.h"

#include <errno.h>

#include <algorithm>
#include <cstring>

#include "history.h"

namespace etcd {
namespace {

constexpr int replaced = -ESTALE;

}  // namespace

int BackupReader::open(BackupArea &area, const std::string &name)
{
    name_ = name;
    by_revision_ = true;
    area.unpublished().erase(name);  // what is written after a look is meant so
    const int error = area.look_up(area.keys_of(name), key_, manifest_);
    return error == 0 && key_.version == 0 ? -ENOENT : error;
}

std::uint64_t BackupReader::size()
{
    told_ = true;
    return manifest_.size();
}

int BackupReader::fetch(BackupArea &area, std::uint64_t number, std::string &stored)
{
    RangeRequest request;
    request.key = area.keys_of(name_).chunk(manifest_.upload, number);
    RangeResponse response;
    for (;;) {
        request.revision = by_revision_ ? key_.mod_revision : 0;
        const int error = area.client().range(request, response, area.client().allow_chunk());
        if (error == 0) {
            break;
        }
        if (error != compacted || !by_revision_) {
            return error;
        }
        by_revision_ = false;
    }
    KeyValue found;
    if (!take_single(response, request.key, found)) {
        return -EIO;
    }
    if (found.version == 0) {
        return replaced;
    }
    stored = std::move(found.value);
    return 0;
}

int BackupReader::read_chunks(BackupArea &area, char *to, std::uint64_t size, std::uint64_t offset)
{
    const std::uint64_t chunk_bytes = manifest_.chunk_bytes;
    const bool whole = offset == 0 && size == manifest_.length;
    std::uint64_t file_sum = 0;
    for (std::uint64_t done = 0; done < size;) {
        const std::uint64_t number = (offset + done) / chunk_bytes;
        const std::uint64_t start = number * chunk_bytes;
        std::string stored;
        if (const int error = fetch(area, number, stored); error != 0) {
            return error;
        }
        std::string_view bytes;
        std::uint64_t sum = 0;
        const std::uint64_t expected = std::min(chunk_bytes, manifest_.length - start);
        if (!unpack_chunk(number, stored, expected, bytes, sum)) {
            return -EIO;
        }
        file_sum = add_checksum(file_sum, sum);
        const std::uint64_t within = offset + done - start;
        const std::uint64_t part = std::min(size - done, expected - within);
        std::memcpy(to + done, bytes.data() + within, part);
        done += part;
        area.let_pass();
    }
    return whole && file_sum != manifest_.checksum ? -EIO : 0;
}

// The contents went away. What took their place is read instead, once, where nobody has been told of another size.
int BackupReader::read_anew(BackupArea &area)
{
    const std::uint64_t size = manifest_.size();
    const std::uint64_t length = manifest_.length;
    const std::string upload = manifest_.upload;
    if (replaced_) {
        return replaced;
    }
    replaced_ = true;
    if (const int error = open(area, name_); error != 0) {
        return error == -ENOENT ? replaced : error;
    }
    if (manifest_.upload == upload) {
        return -EIO;  // it should be there
    }
    return told_ && (manifest_.size() != size || manifest_.length != length) ? replaced : 0;
}

std::int64_t BackupReader::read(BackupArea &area, char *to, std::uint64_t size, std::uint64_t offset)
{
    for (;;) {
        const std::uint64_t length = manifest_.length;
        const std::uint64_t there = offset < length ? std::min(size, length - offset) : 0;
        if (manifest_.chunk_bytes == 0) {
            std::memcpy(to, manifest_.contents.data() + (there != 0 ? offset : 0), there);
            return static_cast<std::int64_t>(there);
        }
        int error = read_chunks(area, to, there, offset);
        if (error == replaced && delivered_) {
            return replaced;
        }
        if (error == replaced) {
            error = read_anew(area);
            if (error == 0) {
                continue;
            }
        }
        if (error != 0) {
            return error;
        }
        delivered_ = delivered_ || there != 0;
        return static_cast<std::int64_t>(there);
    }
}

}  // namespace etcd
