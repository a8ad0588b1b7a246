// What kestactl asks the library about this controller and the NV image, and what it says when the
// answer is an error.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "names.h"

namespace engine {

// Where a block is looked for.
enum class From { both, memory, sysback };

struct BlockValue {
    std::vector<char> bytes;
    std::string place;  // where the value came from
};

// Reads a block without the inner lock: one transfer is whole. Throws Failure.
BlockValue read_block(const Block &block, From from);

// Does something under the inner lock of this controller, and lets go of it on every way out. The messages
// say what was not done where the lock can't be had, and what was where it can't be let go. Throws Failure.
void under_inner_lock(std::string_view not_done, const std::function<std::string()> &act);

// Writes a block to every place that it lives in, under the inner lock. Throws Failure, also where the
// lock could not be released: nothing is left held unsaid.
void write_block(const Block &block, std::vector<char> bytes);

// A text field, up to its terminator or its end.
std::string field_text(const std::vector<char> &bytes);

// The stored name, for showing where it is no slot's: bytes that are no text as \xNN. Throws Failure.
std::string accept_slot();
std::string backup_slot();

// Makes the own number known to the library, without writing its file. Returns it. Throws Failure.
int learn_own_number();

// Refuses where nothing may be written: in Suspend boot mode. Throws Failure.
void require_writable();

// Which places a command uses: both from its beginning, or NV memory only, from here on.
void use_both_places();
void use_memory_only();

// To be called before a write: after one failed access to the system backup area the library goes on with NV memory alone,
// and calls that success. Both places are asked anew, unless the command is for NV memory only.
void ask_both_places();

// What a failed library call means: held by the inner lock, or a failure of the platform.
[[noreturn]] void fail_call(std::string_view code, std::string_view message, std::string_view hint);

// The slot name, or a Failure that says how to set one.
std::string require_slot(const std::string &name, std::string_view which);

void require_file(const std::string &path, std::string_view hint);

}  // namespace engine
