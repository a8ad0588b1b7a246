#include "etcd_ledger.h"

#include <algorithm>
#include <utility>

#include "call_checks.h"
#include "checksum.h"
#include "contract.h"
#include "manifest.h"

namespace fuzz {
namespace {

using test::Stored;

std::string value_of(const std::optional<Stored> &stored) { return stored ? stored->value : ""; }

bool is_zero(const std::string &bytes) { return bytes.find_first_not_of('\0') == std::string::npos; }

// The part of a region whose trailing zeros are left out.
std::string part_of(const std::string &value, std::uint64_t offset, std::size_t size)
{
    std::string part = offset < value.size() ? value.substr(offset, size) : "";
    part.resize(size);
    return part;
}

std::string with(std::string value, std::uint64_t offset, const std::string &bytes)
{
    value.resize(std::max<std::size_t>(value.size(), offset + bytes.size()));
    value.replace(offset, bytes.size(), bytes);
    value.resize(value.find_last_not_of('\0') + 1);
    return value;
}

std::uint64_t place_of(std::size_t slot) { return etcd::first_slot + slot * etcd::slot_size; }

}  // namespace

RegionLedger::RegionLedger(test::StoreDouble &store, const Foreign &foreign, unsigned number)
    : store_(store),
      foreign_(foreign),
      key_("/kesta/nv/" + std::to_string(number)),
      is_image_(number == etcd::image_region)
{
}

RegionLedger::Write &RegionLedger::ask(std::uint64_t offset, std::string bytes, bool unique)
{
    for (std::size_t i = 0; is_image_ && i < slots_.size(); ++i) {
        if (offset == place_of(i) && !is_zero(bytes)) {
            slots_[i].claims.insert(bytes);
        }
    }
    return writes_.emplace_back(Write{offset, std::move(bytes), 0, unique});
}

void RegionLedger::somebody_else(std::uint64_t offset, const std::string &bytes, Foreign &theirs)
{
    const std::int64_t revision = store_.revision();
    store_.put(key_, with(store_.value_at(key_, revision), offset, bytes));
    theirs.insert(revision + 1);
}

void RegionLedger::written(const Write &write)
{
    for (std::size_t i = 0; is_image_ && i < slots_.size(); ++i) {
        if (write.offset == place_of(i)) {
            slots_[i].held = is_zero(write.bytes) ? "" : write.bytes;
            slots_[i].in_doubt = false;
        }
    }
}

// Whoever asks for a claim and gets no answer holds nothing, whatever it held before.
void RegionLedger::failed(const Write &write)
{
    for (std::size_t i = 0; is_image_ && i < slots_.size(); ++i) {
        if (write.offset == place_of(i) && !is_zero(write.bytes)) {
            slots_[i].held.clear();
            slots_[i].in_doubt = true;
        }
    }
}

void RegionLedger::read(std::uint64_t offset, const std::string &bytes)
{
    for (std::size_t i = 0; is_image_ && i < slots_.size(); ++i) {
        if (offset <= place_of(i) && place_of(i) + etcd::slot_size <= offset + bytes.size()) {
            slots_[i].seen = bytes.substr(place_of(i) - offset, etcd::slot_size);
        }
    }
}

void RegionLedger::begin_anew() { slots_ = {}; }

// Who asked for it, and whether it may have gone through.
void RegionLedger::judge_change(const std::string &before, const std::string &after)
{
    Write *asked = nullptr;
    for (Write &write : writes_) {
        if (with(before, write.offset, write.bytes) == after && (!asked || write.unique)) {
            asked = &write;
        }
    }
    require(asked != nullptr, "a region became what nobody asked for");
    ++asked->made;
    require(!asked->unique || asked->made == 1, "a write came back");
    for (std::size_t i = 0; is_image_ && i < slots_.size(); ++i) {
        const Slot &slot = slots_[i];
        const std::string there = part_of(before, place_of(i), etcd::slot_size);
        if (asked->offset != place_of(i)) {
            const bool to_slot = asked->offset >= place_of(0) && asked->offset < place_of(slots_.size());
            require(to_slot || slot.held.empty() || there == slot.held, "a holder wrote whose claim was gone");
        } else if (is_zero(asked->bytes)) {
            require(slot.claims.count(there) != 0 || slot.seen.empty() || there == slot.seen,
                    "a claim was erased that was never looked at");
        }
    }
}

void RegionLedger::judge()
{
    for (const auto &[revision, stored] : store_.changes_after(key_, judged_)) {
        const std::string after = value_of(stored);
        if (foreign_.count(revision) == 0) {
            judge_change(now_, after);
        }
        now_ = after;
        judged_ = revision;
    }
}

bool RegionLedger::had_since(std::int64_t revision, std::uint64_t offset, const std::string &bytes)
{
    bool found = part_of(store_.value_at(key_, revision), offset, bytes.size()) == bytes;
    for (const auto &[later, stored] : store_.changes_after(key_, revision)) {
        found = found || part_of(value_of(stored), offset, bytes.size()) == bytes;
    }
    return found;
}

FileLedger::FileLedger(test::StoreDouble &store, const Foreign &foreign, std::string name)
    : store_(store), foreign_(foreign), name_(std::move(name)), key_(etcd::FileKeys("/kesta/", name_).manifest)
{
}

FileLedger::Write &FileLedger::ask(std::string contents) { return writes_.emplace_back(Write{std::move(contents), 0}); }

void FileLedger::somebody_else(const std::string &contents, Foreign &theirs)
{
    etcd::Manifest manifest;
    manifest.length = contents.size();
    const std::string number = std::to_string(store_.revision());
    manifest.upload = "e" + std::string(15 - number.size(), '0') + number;
    manifest.contents = contents;
    manifest.checksum = etcd::checksum(contents);
    theirs.insert(store_.revision() + 1);
    store_.put(key_, etcd::encode(manifest));
}

// What a reader has of a revision: whole.
std::string FileLedger::contents_at(std::int64_t revision)
{
    const std::string value = store_.value_at(key_, revision);
    if (value.empty()) {
        return "(nothing)";
    }
    etcd::Manifest manifest;
    require(etcd::decode(value, manifest), "a name has no manifest");
    const etcd::FileKeys keys("/kesta/", name_);
    std::string contents = manifest.contents;
    std::uint64_t file_sum = 0;
    const auto known = known_.find(manifest.upload);
    for (std::uint64_t number = 0; number < manifest.chunks(); ++number) {
        const std::string stored = store_.value_at(keys.chunk(manifest.upload, number), revision);
        if (known != known_.end() && !stored.empty()) {
            continue;  // what a chunk of an upload is does not change
        }
        const std::uint64_t left = manifest.length - number * manifest.chunk_bytes;
        std::string_view bytes;
        std::uint64_t sum = 0;
        require(etcd::unpack_chunk(number, stored, std::min<std::uint64_t>(manifest.chunk_bytes, left), bytes, sum),
                "a file lacks a chunk");
        file_sum = etcd::add_checksum(file_sum, sum);
        contents += bytes;
    }
    if (manifest.chunk_bytes != 0 && known != known_.end()) {
        return known->second;
    }
    require(contents.size() == manifest.length, "a file has another length");
    require(manifest.chunk_bytes == 0 || file_sum == manifest.checksum, "a file has another checksum");
    return known_[manifest.upload] = contents;
}

void FileLedger::judge()
{
    for (const auto &[revision, stored] : store_.changes_after(key_, judged_)) {
        require(stored.has_value(), "a file was removed");
        etcd::Manifest before;
        etcd::Manifest after;
        (void)etcd::decode(store_.value_at(key_, revision - 1), before);
        const std::string contents = contents_at(revision);
        (void)etcd::decode(stored->value, after);
        judged_ = revision;
        if (foreign_.count(revision) != 0) {
            continue;
        }
        if (before.upload == after.upload) {
            require(contents == contents_at(revision - 1), "contents changed as their size was recorded");
            continue;
        }
        const auto asked = std::find_if(writes_.begin(), writes_.end(),
                                        [&](const Write &write) { return write.contents == contents; });
        require(asked != writes_.end(), "a file became what nobody asked for");
        ++asked->made;
        require(asked->made == 1, "contents came back");
    }
    const std::int64_t revision = store_.revision();
    if (whole_at_ != revision) {
        (void)contents_at(revision);
        whole_at_ = revision;
    }
}

bool FileLedger::had_since(std::int64_t revision, const std::string &contents)
{
    bool found = contents_at(revision) == contents;
    for (const auto &[later, stored] : store_.changes_after(key_, revision)) {
        found = found || contents_at(later) == contents;
    }
    return found;
}

}  // namespace fuzz
