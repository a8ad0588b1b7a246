#include "nv_region.h"

#include <errno.h>

#include <algorithm>

#include "history.h"

namespace etcd {
namespace {

std::string without_trailing_zeros(std::string bytes)
{
    bytes.resize(bytes.find_last_not_of('\0') + 1);  // nothing found: -1, and all go
    return bytes;
}

}  // namespace

void NvRegion::forget()
{
    now_.reset();
    unanswered_.reset();
    fence_.forget();
}

// Remembers what the region is. False: that it can't be.
bool NvRegion::accept(KeyValue found)
{
    now_.reset();
    if (found.value.size() > nv_region_size) {
        return false;
    }
    now_ = std::move(found);
    connections_ = client_.connections();
    return true;
}

int NvRegion::refresh(const Allowed &allowed)
{
    RangeRequest request;
    request.key = key_;
    RangeResponse response;
    KeyValue found;
    if (const int error = client_.range(request, response, allowed); error != 0) {
        return error;
    }
    return take_single(response, key_, found) && accept(std::move(found)) ? 0 : -EIO;
}

std::string NvRegion::contents() const
{
    std::string bytes = now_->value;
    bytes.resize(nv_region_size);
    return bytes;
}

int NvRegion::read(std::uint64_t offset, void *buffer, std::uint64_t length)
{
    if (const int error = refresh(client_.allow_transfer()); error != 0) {
        return error;
    }
    const std::string &value = now_->value;
    auto *to = static_cast<char *>(buffer);
    const std::uint64_t there = offset < value.size() ? std::min(length, value.size() - offset) : 0;
    if (there != 0) {
        std::copy_n(value.data() + offset, there, to);
    }
    std::fill_n(to + there, length - there, '\0');
    if (is_image_) {
        fence_.read(offset, {to, length});
    }
    // What is written after a look is meant so: it is no repetition.
    if (unanswered_ && offset < unanswered_->offset + unanswered_->bytes.size() &&
        unanswered_->offset < offset + length) {
        unanswered_.reset();
    }
    return 0;
}

NvRegion::Write NvRegion::begin(std::uint64_t offset, std::string bytes)
{
    if (unanswered_ && unanswered_->offset == offset && unanswered_->bytes == bytes) {
        return *unanswered_;
    }
    unanswered_.reset();
    Write write;
    write.offset = offset;
    write.bytes = std::move(bytes);
    return write;
}

// Makes a write from what the region is. over: there is nothing to be put, and the result is that of the write.
int NvRegion::prepare(Write &write, const Allowed &allowed, bool &over)
{
    over = true;
    bool fresh = !is_current();
    for (;; fresh = true) {
        if (fresh) {
            if (const int error = refresh(allowed); error != 0) {
                return error;
            }
        }
        std::string region = contents();
        const auto judged = is_image_ ? fence_.judge(write.offset, write.bytes, region) : LockFence::Judgement::go;
        if (judged == LockFence::Judgement::go) {
            over = false;
            write.from = *now_;
            region.replace(write.offset, write.bytes.size(), write.bytes);
            write.becomes = without_trailing_zeros(std::move(region));
            return 0;
        }
        if (fresh) {  // what was seen earlier may be over
            return judged == LockFence::Judgement::done ? 0 : -ESTALE;
        }
    }
}

int NvRegion::put(Write &write, const Allowed &allowed, bool &held)
{
    TxnRequest request;
    request.conditions = {{key_, Condition::Of::changed_at, write.from.mod_revision}};
    request.then = {{std::nullopt, PutRequest{key_, write.becomes, 0}, std::nullopt}};
    request.otherwise = {{RangeRequest{key_, "", 0, 0, false}, std::nullopt, std::nullopt}};
    TxnResponse response;
    if (const int error = client_.txn(request, response, allowed, write.unknown); error != 0) {
        return error;
    }
    held = response.held;
    KeyValue found;
    if (held) {
        found = write.from;
        found.value = write.becomes;
        found.mod_revision = response.revision;
        found.create_revision = found.version == 0 ? response.revision : found.create_revision;
        ++found.version;
    } else if (response.ranges.size() != 1 || !take_single(response.ranges[0], key_, found)) {
        return -EIO;
    }
    return accept(std::move(found)) ? 0 : -EIO;
}

// The condition of a write is refused, of which an earlier try went unanswered: was that the change?
NvRegion::Settled NvRegion::settle(Write &write, const Allowed &allowed, int &error)
{
    KeyValue change;
    switch (first_change(client_, write.from, *now_, allowed, change, error)) {
    case History::found:
        return change.value == write.becomes ? Settled::done : Settled::not_done;
    case History::unchanged:
        error = -EIO;  // the condition was refused for nothing
        return Settled::failed;
    case History::lost:
        write.lost = true;
        error = -ESTALE;
        return Settled::failed;
    default:
        return Settled::failed;
    }
}

// A write that ends in an error. One whose outcome is unknown is kept for whoever repeats it.
int NvRegion::give_up(Write &write, int error)
{
    if (write.unknown) {
        now_.reset();
        if (is_image_) {
            fence_.unanswered(write.offset, write.bytes);
        }
        unanswered_ = std::move(write);
    }
    return error;
}

int NvRegion::write(std::uint64_t offset, const void *buffer, std::uint64_t length)
{
    const Allowed allowed = client_.allow_transfer();
    Write write = begin(offset, std::string(static_cast<const char *>(buffer), length));
    if (write.lost) {
        return -ESTALE;
    }
    for (;;) {
        bool over = false;
        int error = write.unknown ? 0 : prepare(write, allowed, over);
        bool held = false;
        if (error == 0 && !over) {
            error = put(write, allowed, held);
        }
        if (error != 0) {
            return give_up(write, error);
        }
        Settled settled = held || over ? Settled::done : Settled::not_done;
        if (settled == Settled::not_done && write.unknown) {
            settled = settle(write, allowed, error);
        }
        if (settled == Settled::done) {
            unanswered_.reset();
            if (is_image_) {
                fence_.written(offset, write.bytes);
            }
            return 0;
        }
        if (settled == Settled::failed) {
            return give_up(write, error);
        }
        write.unknown = false;
        if (allowed.deadline.passed()) {
            return give_up(write, -ETIMEDOUT);
        }
    }
}

}  // namespace etcd
