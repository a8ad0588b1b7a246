#include "names.h"

#include <kesta/kesta.h>

#include <algorithm>
#include <cctype>

#include "failure.h"

namespace engine {
namespace {

constexpr std::size_t longest_group = KESTA_GROUP_NAME_SIZE - 1;

BlockKind kind_of(const KESTA_NV_ITEM &item)
{
    switch (item.kind) {
    case KESTA_NV_KIND_NUMBER:
        return BlockKind::number;
    case KESTA_NV_KIND_VERSION:
        return BlockKind::version;
    case KESTA_NV_KIND_SLOT_NAME:
        return BlockKind::slot;
    case KESTA_NV_KIND_GROUP_NAME:
        return BlockKind::group;
    case KESTA_NV_KIND_TEXT:
        return BlockKind::text;
    case KESTA_NV_KIND_COMMAND_LOCK:
        return BlockKind::lock;
    case KESTA_NV_KIND_INNER_LOCK:
        return BlockKind::inner_lock;
    default:
        return BlockKind::bytes;  // whatever else a newer library has can be shown so
    }
}

std::vector<Block> make_blocks()
{
    std::vector<Block> all;
    unsigned count = 0;
    const KESTA_NV_ITEM *const items = kesta_nv_items(&count);
    for (const KESTA_NV_ITEM *item = items; item != items + count; ++item) {
        all.push_back({item->block_id, item->name, kind_of(*item), item->size, item->mirror != nullptr,
                       item->offset >= 0, item->value_size, item->mirror_size, item->offset});
    }
    return all;
}

bool is_group_character(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '_' || c == '-';
}

}  // namespace

const std::vector<Block> &blocks()
{
    static const std::vector<Block> all = make_blocks();
    return all;
}

const Block &find_block(const std::string &text)
{
    for (const Block &block : blocks()) {
        if (block.name == text || std::to_string(block.id) == text) {
            return block;
        }
    }
    throw Failure(Exit::usage, "unknown-block", "There is no block '" + text + "'.",
                  "'kestactl nv list' shows all blocks by name and number.");
}

std::string place_of_block(int block) { return "NV memory: block " + std::to_string(block); }

bool all_zero(const std::vector<char> &bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](char byte) { return byte == 0; });
}

std::string controller_name(int controller) { return "CNT" + std::to_string(controller); }

int parse_controller(const std::string &text)
{
    const std::string digit = text.rfind("CNT", 0) == 0 ? text.substr(3) : text;
    if (digit.size() != 1 || digit[0] < '0' || digit[0] >= '0' + KESTA_CONTROLLERS) {
        throw Failure(Exit::usage, "bad-controller", "There is no controller '" + text + "'.",
                      "The controllers are CNT0, CNT1, CNT2 and CNT3.");
    }
    return digit[0] - '0';
}

void check_group(const std::string &name)
{
    const bool good = !name.empty() && name.size() <= longest_group && name[0] != '.' && name[0] != '-' &&
                      std::all_of(name.begin(), name.end(), is_group_character);
    if (!good) {
        throw Failure(Exit::usage, "bad-group", "'" + name + "' can't be the name of a group.",
                      "A group name has 1 to 15 letters, digits, '.', '_' or '-', and begins with "
                      "a letter, a digit or '_'.");
    }
}

bool is_slot(const std::string &name) { return name == KESTA_SLOT0 || name == KESTA_SLOT1; }

void check_slot(const std::string &name)
{
    if (!is_slot(name)) {
        throw Failure(Exit::usage, "bad-slot", "'" + name + "' is no archive slot.",
                      "The slots are " KESTA_SLOT0 " and " KESTA_SLOT1 ".");
    }
}

}  // namespace engine
