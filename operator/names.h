// Blocks by name, and names that go into a path or a shell command.
#pragma once

#include <string>
#include <vector>

namespace engine {

enum class BlockKind {
    number,      // one 32-bit integer
    version,     // a version number: 0 and up
    slot,        // the name of an archive slot
    group,       // the name of a group
    text,        // any text
    bytes,       // shown in hexadecimal
    lock,        // a command lock: shown, not written
    inner_lock,  // an inner-lock slot: shown, not written
};

struct Block {
    int id;
    std::string name;
    BlockKind kind;
    unsigned size;  // of the field
    bool mirrored;
    bool in_memory;
    // What is written: of an identity field 16 bytes of the 20, which is what the flows that read its mirror have room for.
    unsigned written = size;
    unsigned mirror_size = 0;  // what a mirror file may hold of it
    int offset = -1;           // in the NV image
};

// All items of the NV image and of its mirror, as the library tells them.
const std::vector<Block> &blocks();

// By name or number. Throws Failure.
const Block &find_block(const std::string &text);

// The place, as those who are told what is written know it: "NV memory: block 31".
std::string place_of_block(int block);

// Whether nothing was ever written to a field.
bool all_zero(const std::vector<char> &bytes);

// "CNT2"
std::string controller_name(int controller);

// CNT0 to CNT3, or the number alone. Throws Failure.
int parse_controller(const std::string &text);

// Throw Failure for what must not reach a path or a shell. A slot is kesta_backup0 or kesta_backup1.
void check_group(const std::string &name);
void check_slot(const std::string &name);
bool is_slot(const std::string &name);

}  // namespace engine
