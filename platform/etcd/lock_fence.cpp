#include "lock_fence.h"

#include <algorithm>

#include "kesta/nv_image.h"

namespace etcd {

const std::size_t first_slot = offsetof(KESTA_VOLATILE, innerlock);
const std::size_t slot_size = sizeof(KESTA_INNERLOCK_BUF);
static_assert(sizeof(KESTA_VOLATILE::innerlock) == slot_count * sizeof(KESTA_INNERLOCK_BUF));

namespace {

std::size_t place_of(std::size_t slot) { return first_slot + slot * slot_size; }

// The slot that is written, and nothing else.
std::optional<std::size_t> single_slot(std::size_t offset, std::size_t size)
{
    for (std::size_t slot = 0; slot < slot_count; ++slot) {
        if (offset == place_of(slot) && size == slot_size) {
            return slot;
        }
    }
    return std::nullopt;
}

// The slot's bytes among those of a transfer, if it has all of them.
std::optional<std::string_view> slot_in(std::size_t slot, std::size_t offset, std::string_view bytes)
{
    const std::size_t place = place_of(slot);
    if (place < offset || place + slot_size > offset + bytes.size()) {
        return std::nullopt;
    }
    return bytes.substr(place - offset, slot_size);
}

bool is_zero(std::string_view bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](char byte) { return byte == '\0'; });
}

}  // namespace

LockFence::Judgement LockFence::judge(std::size_t offset, std::string_view bytes, std::string_view region) const
{
    const auto slot_of_region = [&](std::size_t slot) {
        return region.substr(place_of(slot), slot_size);
    };
    const auto slot = single_slot(offset, bytes.size());
    if (!slot) {
        for (std::size_t i = 0; i < slot_count; ++i) {
            if (slots_[i].sure && slots_[i].claim != slot_of_region(i)) {
                return Judgement::stale;
            }
        }
        return Judgement::go;
    }
    if (!is_zero(bytes)) {
        return Judgement::go;
    }
    const Slot &known = slots_[*slot];
    if (!known.claim.empty()) {
        return known.claim == slot_of_region(*slot) ? Judgement::go : Judgement::done;
    }
    if (is_zero(slot_of_region(*slot))) {
        return Judgement::done;
    }
    return !known.seen || *known.seen == slot_of_region(*slot) ? Judgement::go : Judgement::stale;
}

void LockFence::written(std::size_t offset, std::string_view bytes)
{
    const bool claims = single_slot(offset, bytes.size()).has_value();
    for (std::size_t i = 0; i < slot_count; ++i) {
        const auto now = slot_in(i, offset, bytes);
        if (!now) {
            continue;
        }
        Slot &slot = slots_[i];
        if (claims && !is_zero(*now)) {
            slot.claim = *now;
            slot.sure = true;
        } else if (slot.claim != *now) {
            slot.claim.clear();
            slot.sure = false;
        }
    }
}

void LockFence::unanswered(std::size_t offset, std::string_view bytes)
{
    const auto slot = single_slot(offset, bytes.size());
    if (slot && !is_zero(bytes)) {
        slots_[*slot].claim = bytes;
        slots_[*slot].sure = false;
    }
}

void LockFence::read(std::size_t offset, std::string_view bytes)
{
    for (std::size_t i = 0; i < slot_count; ++i) {
        if (const auto now = slot_in(i, offset, bytes)) {
            slots_[i].seen = *now;
        }
    }
}

}  // namespace etcd
