// kestactl nv dump: the NV image in hexadecimal, or by its fields.
#include <errno.h>
#include <kesta/kesta.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <optional>

#include "appliance_state.h"
#include "block_value.h"
#include "command.h"
#include "image_fields.h"
#include "overview.h"
#include "whole_file.h"

namespace kestactl {
namespace {

constexpr int nv_region_size = 32768;

struct DumpOptions {
    std::optional<std::string> file;
    bool decoded = false;
    std::optional<int> region;
    int offset = 0;
    int size = 256;
};

// A file without a name, whose text is printed in the end.
class TextFile {
public:
    TextFile() : fd_(memfd_create("dump", MFD_CLOEXEC))
    {
        if (fd_ < 0) {
            throw Failure(Exit::platform, "no-file", std::string("No room for the dump: ") + strerror(errno) + ".",
                          "Dump to a file: --out FILE.");
        }
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    ~TextFile() { (void)close(fd_); }  // nothing was promised to be kept
    TextFile(const TextFile &) = delete;
    TextFile &operator=(const TextFile &) = delete;

    const std::string &path() const { return path_; }
    std::string text() const
    {
        std::string all;
        std::array<char, 4096> part;
        ssize_t count;
        while ((count = pread(fd_, part.data(), part.size(), static_cast<off_t>(all.size()))) > 0) {
            all.append(part.data(), static_cast<std::size_t>(count));
        }
        return all;
    }

private:
    int fd_;
    std::string path_;
};

void dump_to(std::string path, const DumpOptions &options)
{
    const int result =
        options.region ? kestal_non_volatile_dumpout_assign(path.data(), *options.region, options.offset, options.size)
                       : kestal_non_volatile_dumpout(path.data());
    if (result != KESTA_OK) {
        fail_call("dump-failed", "The dump could not be made.",
                  "Check that there is such a region, and that the file can be written; --trace 1 shows "
                  "the failed call.");
    }
}

Json field_json(const ImageField &field, const std::vector<char> &bytes)
{
    return {{"name", field.block.name},
            {"block", field.has_block() ? Json(field.block.id) : Json(nullptr)},
            {"offset", field.offset},
            {"size", field.block.size},
            {"value", decoded(field.block, bytes)},
            {"bytes", hex(bytes)}};
}

Result dump_bytes_as_json(const DumpOptions &options)
{
    Result result;
    result.json = {{"region", *options.region},
                   {"offset", options.offset},
                   {"size", options.size},
                   {"bytes", hex(read_region(static_cast<unsigned>(*options.region), options.offset, options.size))}};
    return result;
}

// A dump shows whole pages, and one more than there are whole ones in the size.
void check_range(const DumpOptions &options)
{
    constexpr int page = 256;
    const int end = options.offset + (options.size / page + 1) * page;
    if (options.region && end > nv_region_size) {
        throw Failure(Exit::usage, "bad-range",
                      "The dump would end at byte " + std::to_string(end) + " of the region, which has " +
                          std::to_string(nv_region_size) + ".",
                      "It shows pages of 256 bytes, one more than there are whole ones in --size: "
                      "give a smaller --offset or --size.");
    }
}

Result dump(const DumpOptions &options, const Globals &globals)
{
    check_range(options);
    if (options.file) {
        ExportedFile file(*options.file);
        dump_to(file.writable_path(), options);
        file.publish();
        Result result;
        result.text = "Written to " + *options.file + ".\n";
        result.json = {{"file", *options.file}};
        return result;
    }
    if (globals.json && options.region) {
        return dump_bytes_as_json(options);
    }
    if (globals.json || options.decoded) {
        return decode_image();
    }
    const TextFile file;
    dump_to(file.path(), options);
    Result result;
    result.text = file.text();
    return result;
}

}  // namespace

Result decode_image()
{
    const std::vector<char> image = read_image();
    Result result;
    result.json = {{"region", KESTA_NV_IMAGE_REGION},
                   {"size", sizeof(KESTA_VOLATILE)},
                   {"stamped", is_stamped(image)},
                   {"fields", Json::array()}};
    result.text = "offset size block  name                 value\n";
    for (const ImageField &field : image_fields()) {
        const std::vector<char> bytes = bytes_of(field, image);
        const std::string value =
            field.block.kind == BlockKind::bytes && all_zero(bytes) ? "(zeros)" : shown(decoded(field.block, bytes));
        char line[96];
        snprintf(line, sizeof(line), "%6zu %4u %5s  %-20s ", field.offset, field.block.size,
                 field.has_block() ? std::to_string(field.block.id).c_str() : "-", field.block.name.c_str());
        result.text += line + value + "\n";
        result.json["fields"].push_back(field_json(field, bytes));
    }
    return result;
}

void add_nv_dump(const Command &nv, Action &action)
{
    auto options = std::make_shared<DumpOptions>();
    const Command command = nv.add_subcommand("dump", "Show the NV image in hexadecimal, or by its fields");
    const Option decoded = command.add_flag("--decoded", options->decoded, "Show every field by its name");
    command.add_option("--out", options->file, "Write to this file instead").option_text("FILE").excludes(decoded);
    const Option region = command.add_option("--region", options->region, "Dump pages of this region instead")
                              .in_range(0, 255)
                              .option_text("N")
                              .excludes(decoded);
    command.add_option("--offset", options->offset, "Where they begin")
        .in_range(0, nv_region_size - 1)
        .option_text("BYTES")
        .needs(region);
    command.add_option("--size", options->size, "How much of it (256)")
        .in_range(1, nv_region_size)
        .option_text("BYTES")
        .needs(region);
    command.callback([&action, options] {
        action = [options](const Globals &given) {
            return dump(*options, given);
        };
    });
    add_examples(command,
                 "  kestactl nv dump\n"
                 "  kestactl nv dump --decoded\n"
                 "  kestactl nv dump --region 2 --offset 600 --size 64");
}

}  // namespace kestactl
