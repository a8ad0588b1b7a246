#include "image_fields.h"

#include <kesta/kesta.h>
#include <stddef.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "appliance_state.h"

namespace engine {
namespace {

constexpr std::string_view image_magic("ENVV");
constexpr int no_block = 0;

// What has no block: the header, and what is not used.
#define KESTA_UNNAMED(member, name, kind) \
    ImageField { {no_block, name, kind, sizeof(KESTA_VOLATILE::member), false, true}, offsetof(KESTA_VOLATILE, member) }

std::vector<ImageField> make_fields()
{
    std::vector<ImageField> all{KESTA_UNNAMED(alivemond, "alivemond", BlockKind::bytes),
                                KESTA_UNNAMED(magic, "magic", BlockKind::text),
                                KESTA_UNNAMED(version, "layout-version", BlockKind::number),
                                KESTA_UNNAMED(sync_flag.synced, "synced", BlockKind::bytes),
                                KESTA_UNNAMED(sync_flag.req, "req", BlockKind::bytes),
                                KESTA_UNNAMED(sync_flag.rfu, "rfu", BlockKind::bytes),
                                KESTA_UNNAMED(cnttbl.sysbakinfo.filler3, "filler3", BlockKind::bytes),
                                KESTA_UNNAMED(filler, "filler", BlockKind::bytes)};
    for (const Block &block : blocks()) {
        if (block.in_memory) {
            all.push_back({block, static_cast<std::size_t>(block.offset)});
        }
    }
    std::sort(all.begin(), all.end(), [](const ImageField &a, const ImageField &b) { return a.offset < b.offset; });
    return all;
}

#undef KESTA_UNNAMED

}  // namespace

bool ImageField::has_block() const { return block.id != no_block; }

const std::vector<ImageField> &image_fields()
{
    static const std::vector<ImageField> all = make_fields();
    return all;
}

std::vector<char> read_region(unsigned region, int offset, int size)
{
    std::vector<char> bytes(static_cast<std::size_t>(size));
    if (kestal_non_volatile_r_memory(region, bytes.data(), offset, size) != KESTA_OK) {
        fail_call("read-failed", "NV memory could not be read (region " + std::to_string(region) + ").",
                  "Look at --trace 1 for the failed call, and check the storage firmware.");
    }
    return bytes;
}

std::vector<char> read_image() { return read_region(KESTA_NV_IMAGE_REGION, 0, sizeof(KESTA_VOLATILE)); }

std::vector<char> bytes_of(const ImageField &field, const std::vector<char> &image)
{
    const auto from = image.begin() + static_cast<std::ptrdiff_t>(field.offset);
    return {from, from + field.block.size};
}

bool is_stamped(const std::vector<char> &image)
{
    return std::string_view(image.data() + offsetof(KESTA_VOLATILE, magic), image_magic.size()) == image_magic;
}

}  // namespace engine
