#include "names.h"

#include <kesta/kesta.h>

#include <algorithm>
#include <cctype>

#include "failure.h"

namespace engine {
namespace {

constexpr unsigned identity_size = 16;
constexpr std::size_t longest_group = KESTA_GROUP_NAME_SIZE - 1;

void add_per_controller(std::vector<Block> &all, int first, const std::string &name, BlockKind kind,
                        unsigned size, bool mirrored)
{
    for (int i = 0; i < KESTA_CONTROLLERS; ++i) {
        all.push_back({first + i, name + "-cnt" + std::to_string(i), kind, size, mirrored, true});
    }
}

std::vector<Block> make_blocks()
{
    std::vector<Block> all;
    add_per_controller(all, KESTA_BLOCK_RESTORE_REQ_CNT0, "restore-request", BlockKind::number, 4,
                       false);
    add_per_controller(all, KESTA_BLOCK_RESTORE_RES_CNT0, "restore-result", BlockKind::number, 4,
                       false);
    all.push_back({KESTA_BLOCK_GROUP, "group", BlockKind::group, 16, false, true});
    all.push_back({KESTA_BLOCK_BACKUP_NAME, "backup-name", BlockKind::slot, 32, true, true});
    all.push_back({KESTA_BLOCK_ACCEPT_NAME, "accept-name", BlockKind::slot, 32, true, true});
    all.push_back({KESTA_BLOCK_OLD_BACKUP_NAME, "old-backup-name", BlockKind::slot, 32, false, true});
    add_per_controller(all, KESTA_BLOCK_LOCK_CNT0, "lock", BlockKind::lock, 24, false);
    all.push_back(
        {KESTA_BLOCK_NUMBERING_VERSION, "numbering-version", BlockKind::version, 4, true, true});
    all.push_back({KESTA_BLOCK_BACKUP_VERSION, "backup-version", BlockKind::version, 4, true, true});
    all.push_back({KESTA_BLOCK_ACCEPT_VERSION, "accept-version", BlockKind::version, 4, false, true});
    all.push_back(
        {KESTA_BLOCK_OLD_BACKUP_VERSION, "old-backup-version", BlockKind::version, 4, false, true});
    all.push_back({KESTA_BLOCK_REBOOT_VERSION, "reboot-version", BlockKind::version, 4, true, false});
    add_per_controller(all, KESTA_BLOCK_VERSION_CNT0, "version", BlockKind::version, 4, true);
    add_per_controller(all, KESTA_BLOCK_STATUS_CNT0, "status", BlockKind::number, 4, false);
    add_per_controller(all, KESTA_BLOCK_INNERLOCK_CNT0, "innerlock", BlockKind::inner_lock, 16,
                       false);
    all.push_back({KESTA_BLOCK_WWN, "wwn", BlockKind::text, 20, true, true, identity_size});
    all.push_back({KESTA_BLOCK_SERIALNO, "serialno", BlockKind::text, 20, true, true, identity_size});
    all.push_back({KESTA_BLOCK_GUID, "guid", BlockKind::bytes, 20, true, true, identity_size});
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
    const bool good = !name.empty() && name.size() <= longest_group && name[0] != '.' &&
                      name[0] != '-' && std::all_of(name.begin(), name.end(), is_group_character);
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
