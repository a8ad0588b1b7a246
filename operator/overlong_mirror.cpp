#include "overlong_mirror.h"

#include <kesta/kesta.h>

#include "appliance_state.h"
#include "failure.h"
#include "mirror.h"

namespace engine {

std::vector<const Block *> overlong_mirrors()
{
    std::vector<const Block *> overlong;
    for (const Block *const block : mirrored_blocks()) {
        std::vector<char> bytes(block->mirror_size, '\0');
        const auto reads = [&](unsigned size) {
            return kestal_non_volatile_rw_sysback(block->id, KESTA_FILE_READ, bytes.data(), size) == KESTA_OK;
        };
        if (block->written < block->mirror_size && reads(block->mirror_size) && !reads(block->written)) {
            overlong.push_back(block);
        }
    }
    return overlong;
}

void shorten_mirror(const Block &block)
{
    under_inner_lock("The mirror of " + block.name + " was not written.", [&block] {
        std::vector<char> bytes(block.mirror_size, '\0');
        const bool was_read =
            kestal_non_volatile_rw_sysback(block.id, KESTA_FILE_READ, bytes.data(), block.mirror_size) == KESTA_OK;
        if (was_read && !holds_value_only(block, bytes)) {
            throw Failure(Exit::no, "overlong-mirror",
                          "The system backup area's " + block.name + " has more than " + std::to_string(block.written) +
                              " bytes that are not zero.",
                          "Look at it with 'kestactl nv read " + block.name +
                              " --from sysback', and write it anew with "
                              "'kestactl identity set'.");
        }
        bytes.resize(block.written);
        if (!was_read || write_item(Side::disk, block.id, bytes) != KESTA_OK) {
            fail_call("write-failed", "The mirror of " + block.name + " was not written.",
                      "Look at --trace 1 for the failed call, and check the disk of the system backup area.");
        }
        return "The mirror of " + block.name + " was written";
    });
}

}  // namespace engine
