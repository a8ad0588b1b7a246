// kestactl nv: list, read and write the blocks of the NV image.
#include <kesta/kesta.h>
#include <string.h>

#include <charconv>
#include <cstdint>
#include <map>
#include <memory>

#include "appliance_state.h"
#include "block_value.h"
#include "command.h"
#include "names.h"

namespace kestactl {
namespace {

struct ReadOptions {
    std::string block;
    From from = From::both;
};

struct WriteOptions {
    std::string block;
    std::string value;
    bool memory_only = false;
};

const std::map<std::string, From> read_places{{"both", From::both},
                                              {"memory", From::memory},
                                              {"sysback", From::sysback}};

Result read(const ReadOptions &options)
{
    const Block &block = find_block(options.block);
    const BlockValue value = read_block(block, options.from);
    Result result;
    const Json content = decoded(block, value.bytes);
    result.text = shown(content) + "\n";
    result.json = {{"block", block.id},
                   {"name", block.name},
                   {"value", content},
                   {"bytes", hex(value.bytes)},
                   {"place", value.place}};
    return result;
}

[[noreturn]] void refuse_value(const Block &block, const std::string &value, const std::string &hint)
{
    throw Failure(Exit::usage, "bad-value", "'" + value + "' is no value for block " + block.name + ".", hint);
}

std::vector<char> encode_number(const Block &block, const std::string &text)
{
    std::int32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) {
        refuse_value(block, text, "Give one decimal number of 32 bits.");
    }
    if (block.kind == BlockKind::version && number < 0) {
        refuse_value(block, text, "A version number is 0 (never set) to 2147483647.");
    }
    std::vector<char> bytes(sizeof(number));
    memcpy(bytes.data(), &number, sizeof(number));
    return bytes;
}

std::vector<char> encode_text(const Block &block, const std::string &text)
{
    if (text.size() > block.written) {
        refuse_value(block, text, "The field holds " + std::to_string(block.written) + " characters.");
    }
    std::vector<char> bytes(block.written, '\0');
    memcpy(bytes.data(), text.data(), text.size());
    return bytes;
}

std::vector<char> encode_bytes(const Block &block, const std::string &text)
{
    std::vector<char> bytes(block.written, '\0');
    const bool whole = text.size() % 2 == 0 && text.size() / 2 <= bytes.size();
    for (std::size_t i = 0; whole && i < text.size(); i += 2) {
        unsigned char byte = 0;
        const char *from = text.data() + i;
        const auto [end, error] = std::from_chars(from, from + 2, byte, 16);
        if (error != std::errc() || end != from + 2) {
            refuse_value(block, text, "Give pairs of hexadecimal digits.");
        }
        bytes[i / 2] = static_cast<char>(byte);
    }
    if (!whole || text.empty()) {
        refuse_value(block, text,
                     "Give 1 to " + std::to_string(block.written) + " bytes as pairs of hexadecimal digits.");
    }
    return bytes;
}

std::vector<char> encode(const Block &block, const std::string &text)
{
    switch (block.kind) {
    case BlockKind::number:
    case BlockKind::version:
        return encode_number(block, text);
    case BlockKind::slot:
        check_slot(text);
        return encode_text(block, text);
    case BlockKind::group:
        check_group(text);
        return encode_text(block, text);
    case BlockKind::text:
        return encode_text(block, text);
    case BlockKind::bytes:
        return encode_bytes(block, text);
    case BlockKind::lock:
    case BlockKind::inner_lock:
        break;
    }
    throw Failure(Exit::usage, "lock-block", "Block " + block.name + " is a lock.",
                  "Locks are taken and released, never written by hand: a dead inner lock is "
                  "cleared by the next waiter after 30 seconds.");
}

Plan plan_write(const WriteOptions &options)
{
    const Block &block = find_block(options.block);
    const std::vector<char> bytes = encode(block, options.value);
    if (options.memory_only && !block.in_memory) {
        throw Failure(Exit::usage, "not-in-memory", "Block " + block.name + " has no place in NV memory.",
                      "Leave out --memory-only.");
    }
    learn_own_number();
    require_writable();
    if (options.memory_only) {
        use_memory_only();
    }
    std::vector<std::string> writes;
    if (block.mirrored && !options.memory_only) {
        writes.push_back("system backup area: the mirror file of block " + std::to_string(block.id));
    }
    if (block.in_memory) {
        writes.push_back(place_of_block(block.id));
    }
    Plan plan;
    plan.shared = true;
    plan.json = {{"block", block.id}, {"name", block.name}, {"bytes", hex(bytes)}};
    plan.steps.push_back({"write '" + options.value + "' to " + block.name, writes, [&block, bytes] {
                              write_block(block, bytes);
                          }});
    return plan;
}

Result list()
{
    Result result;
    result.json["blocks"] = Json::array();
    for (const Block &block : blocks()) {
        char line[96];
        snprintf(line, sizeof(line), "%4d  %-20s %3u bytes  %s\n", block.id, block.name.c_str(), block.size,
                 !block.in_memory ? "system backup area only"
                 : block.mirrored ? "NV memory and system backup area"
                                  : "NV memory");
        result.text += line;
        result.json["blocks"].push_back({{"block", block.id},
                                         {"name", block.name},
                                         {"size", block.size},
                                         {"in_memory", block.in_memory},
                                         {"mirrored", block.mirrored}});
    }
    return result;
}

}  // namespace

void add_nv(const Command &app, Globals &globals, Action &action)
{
    const Command nv = app.add_subcommand("nv", "Read, write and look after the NV image");
    nv.require_subcommand();

    const Command list_command = nv.add_subcommand("list", "Show all blocks by name and number");
    list_command.callback([&action] {
        action = [](const Globals &) {
            return list();
        };
    });
    add_examples(list_command, "  kestactl nv list");

    auto reading = std::make_shared<ReadOptions>();
    const Command read_command = nv.add_subcommand("read", "Show one block");
    read_command.add_option("BLOCK", reading->block, "Name or number of the block").required();
    read_command.add_choice("--from", reading->from, read_places, "Where to read: both, memory or sysback")
        .option_text("both|memory|sysback");
    read_command.callback([&action, reading] {
        action = [reading](const Globals &) {
            return read(*reading);
        };
    });

    auto writing = std::make_shared<WriteOptions>();
    const Command write_command = nv.add_subcommand("write", "Set one block, under the inner lock");
    write_command.add_option("BLOCK", writing->block, "Name or number of the block").required();
    write_command.add_option("VALUE", writing->value, "Number, name or text; bytes as hexadecimal").required();
    write_command.add_flag("--memory-only", writing->memory_only,
                           "Write NV memory alone, e.g. while the system backup area is gone");
    add_lock_rule(write_command, globals);
    add_dry_run(write_command, globals);
    write_command.callback([&action, writing] {
        action = [writing](const Globals &given) {
            return carry_out(plan_write(*writing), given);
        };
    });
    add_examples(write_command,
                 "  kestactl nv write group network\n"
                 "  kestactl nv write accept-name kesta_backup1 --memory-only");
    add_examples(read_command,
                 "  kestactl nv read accept-name\n"
                 "  kestactl nv read 31 --from memory --json");
    add_nv_image(nv, globals, action);
    add_nv_verify(nv, action);
    add_examples(nv,
                 "  kestactl nv list\n"
                 "  kestactl nv read accept-name\n"
                 "  kestactl nv write group network --dry-run\n"
                 "  kestactl nv verify");
}

}  // namespace kestactl
