#include "find_mirror.h"

#include <kesta/kesta.h>
#include <string.h>

#include <algorithm>

#include "appliance_state.h"
#include "identity_state.h"
#include "printable.h"
#include "version_numbers.h"

namespace engine {
namespace {

using Bytes = std::vector<char>;

std::optional<Side> side_that(bool memory, bool disk)
{
    return memory == disk ? std::nullopt : std::optional(memory ? Side::memory : Side::disk);
}

int number_in(const Bytes &bytes)
{
    std::int32_t number;
    memcpy(&number, bytes.data(), sizeof(number));
    return number;
}

// What else tells of a version: the record of the archive in its slot, or this controller's flash.
std::optional<Side> told_elsewhere(const Survey &survey, const SlotDecision &slots, int block, int memory, int disk)
{
    if (block == KESTA_BLOCK_BACKUP_VERSION && slots.right) {
        const StoragePlace slot = slot_place(slots.right->backup);
        return side_that(survey.is_recorded(slot, memory), survey.is_recorded(slot, disk));
    }
    if (block == KESTA_BLOCK_VERSION_CNT0 + survey.controller) {
        const int flash = survey.versions.flash.or_zero();
        return side_that(memory == flash, disk == flash);
    }
    return std::nullopt;
}

std::optional<Side> right_version(const Survey &survey, const SlotDecision &slots, const MirroredItem &item)
{
    const int memory = number_in(*item.memory);
    const int disk = number_in(*item.disk);
    if ((memory > 0) != (disk > 0)) {
        return side_that(memory > 0, disk > 0);
    }
    if (const auto told = told_elsewhere(survey, slots, item.block->id, memory, disk)) {
        return told;
    }
    return side_that(is_older_version(disk, memory), is_older_version(memory, disk));
}

std::string lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return tolower(c); });
    return text;
}

// As this controller's board has it, which runs with it.
std::optional<Side> right_identity(const MirroredItem &item)
{
    if (all_zero(*item.memory) != all_zero(*item.disk)) {
        return side_that(!all_zero(*item.memory), !all_zero(*item.disk));
    }
    const Identity board = read_identity(Place::vpd);
    const int block = item.block->id;
    if (block == KESTA_BLOCK_GUID) {
        std::string guid = lower(board.guid.value_or(""));
        std::erase(guid, '-');
        return guid.empty() ? std::nullopt
                            : side_that(hex(*item.memory).starts_with(guid), hex(*item.disk).starts_with(guid));
    }
    const std::string own = (block == KESTA_BLOCK_WWN ? board.wwn : board.serialno).value_or("");
    return own.empty() ? std::nullopt : side_that(field_text(*item.memory) == own, field_text(*item.disk) == own);
}

std::optional<Side> right_name(const SlotDecision &slots, const MirroredItem &item)
{
    if (!slots.right) {
        return std::nullopt;
    }
    const std::string &name = item.block->id == KESTA_BLOCK_BACKUP_NAME ? slots.right->backup : slots.right->accept;
    const bool memory = field_text(*item.memory) == name;
    const bool disk = field_text(*item.disk) == name;
    return memory && disk ? Side::memory : side_that(memory, disk);  // behind the name anything may stand
}

std::optional<Side> right_side(const Survey &survey, const SlotDecision &slots, const MirroredItem &item)
{
    if (!item.block->in_memory) {
        return Side::memory;  // it has no place there, and is made anew on the disk
    }
    if (!item.memory || !item.disk) {
        return side_that(item.memory.has_value(), item.disk.has_value());
    }
    switch (item.block->kind) {
    case BlockKind::slot:
        return right_name(slots, item);
    case BlockKind::version:
        return right_version(survey, slots, item);
    default:
        return right_identity(item);
    }
}

// What 'nv write' takes; nothing: it can't be given as an argument.
std::optional<std::string> argument_of(const MirroredItem &item, Side side)
{
    if (!item.block->in_memory) {
        return "0";
    }
    const Bytes &bytes = *item.at(side);
    switch (item.block->kind) {
    case BlockKind::version:
        return number_in(bytes) < 0 ? std::nullopt : std::optional(std::to_string(number_in(bytes)));
    case BlockKind::bytes:
        return hex({bytes.begin(), bytes.begin() + item.block->written});
    default: {
        const std::string text = field_text(bytes);
        const bool printable =
            std::all_of(text.begin(), text.end(), [](unsigned char c) { return c > ' ' && c < 0x7f; });
        const bool fits = item.block->kind != BlockKind::slot || is_slot(text);
        return printable && fits && !text.empty() && text[0] != '-' ? std::optional(text) : std::nullopt;
    }
    }
}

struct Decided {
    const MirroredItem *item;
    std::optional<Side> side;
};

bool is_name(const MirroredItem &item) { return item.block->kind == BlockKind::slot; }

struct WholeSide {
    Side side;
    Mend mend;
};

// One copy of everything, where one side is right in all that differs, and has it all. Names that are right on neither
// side are written first.
std::optional<WholeSide> whole_side(const Survey &survey, const SlotDecision &slots, const std::vector<Decided> &items)
{
    for (const bool names_first : {false, true}) {
        for (const Side side : {Side::memory, Side::disk}) {
            const bool is_right = std::all_of(items.begin(), items.end(), [&](const Decided &one) {
                return one.side == side || (names_first && is_name(*one.item));
            });
            const std::vector<Replacement> changes = replacements(survey.mirror, side);
            const bool is_complete = std::none_of(changes.begin(), changes.end(), [&](const Replacement &change) {
                return change.value.empty() && !(names_first && is_name(*change.item));
            });
            if (!is_right || !is_complete || (names_first ? !slots.right : !survey.mirror.valid(side))) {
                continue;
            }
            WholeSide whole{side, names_first ? slots.mend() : Mend()};
            whole.mend.push_back({"kestactl", "repair", "--from", side == Side::memory ? "memory" : "disk"});
            return whole;
        }
    }
    return std::nullopt;
}

Mend one_by_one(const SlotDecision &slots, const std::vector<Decided> &items)
{
    Mend mend;
    for (const Decided &one : items) {
        if (is_name(*one.item)) {
            if (slots.right && mend.empty()) {
                mend = slots.mend();
            }
        } else if (const auto value = one.side ? argument_of(*one.item, *one.side) : std::nullopt) {
            mend.push_back({"kestactl", "nv", "write", one.item->block->name, *value});
        }
    }
    return mend;
}

PlaceFinding place_of(const Survey &survey, Side side)
{
    const std::vector<MirroredItem> &items = survey.mirror.items;
    const auto counted = [&items](auto matches) {
        return std::count_if(items.begin(), items.end(), matches);
    };
    const auto unreadable = counted([side](const MirroredItem &item) {
        return side == Side::memory ? item.memory_unreadable : item.disk_unreadable;
    });
    const auto there = counted([side](const MirroredItem &item) { return item.at(side).has_value(); });
    PlaceFinding place;
    place.place = side == Side::memory ? "memory" : "disk";
    place.state = unreadable > 0 ? CopyState::unreadable : there > 0 ? CopyState::good : CopyState::absent;
    place.reason = std::to_string(there) + " items";
    return place;
}

std::string names_of(const std::vector<Decided> &items)
{
    std::string text;
    for (const Decided &one : items) {
        text += (text.empty() ? "" : ", ") + one.item->block->name;
    }
    return text;
}

void decide(SubjectFinding &finding, const Survey &survey, const SlotDecision &slots, const std::vector<Decided> &items)
{
    finding.text = std::to_string(items.size()) + " of 12 differ between NV memory and disk: " + names_of(items) + ".";
    finding.state = finding.has_unreadable_place() ? FindingState::unreadable : FindingState::differs;
    finding.mend.reset();
    if (finding.has_unreadable_place()) {
        finding.text += " Some can't be read: check the NV memory and the disk of the system backup area.";
        return;
    }
    if (const auto whole = whole_side(survey, slots, items)) {
        finding.right = whole->side == Side::memory ? "memory" : "disk";
        finding.mend = whole->mend;
        finding.text += whole->side == Side::memory ? " Right is NV memory." : " Right is the disk.";
        return;
    }
    if (Mend mend = one_by_one(slots, items); !mend.empty()) {
        finding.mend = std::move(mend);
        finding.text += " Each side is right in some of them.";
        return;
    }
    finding.text +=
        " Which side is right can't be told: look at 'kestactl nv verify', then 'kestactl repair --from memory' "
        "or '--from disk'.";
}

}  // namespace

SubjectFinding find_mirror(const Survey &survey, const SlotDecision &slots)
{
    SubjectFinding finding{"mirror"};
    finding.places = {place_of(survey, Side::memory), place_of(survey, Side::disk)};
    std::vector<Decided> differing;
    for (const MirroredItem &item : survey.mirror.items) {
        if (item.differs()) {
            differing.push_back({&item, right_side(survey, slots, item)});
        }
    }
    if (differing.empty()) {
        finding.text = "NV memory and disk agree";
    } else {
        decide(finding, survey, slots, differing);
    }
    return finding;
}

}  // namespace engine
