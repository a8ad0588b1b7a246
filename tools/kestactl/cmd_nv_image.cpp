// kestactl nv init, clear, flags, sync and dump: the NV image as a whole.
#include <errno.h>
#include <kesta/kesta.h>
#include <stddef.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <optional>

#include "appliance_state.h"
#include "block_value.h"
#include "command.h"
#include "inner_lock_holders.h"
#include "lock_state.h"
#include "overview.h"
#include "whole_file.h"

namespace kestactl {
namespace {

constexpr std::string_view image_magic("ENVV");
constexpr int nv_region_size = 32768;
constexpr int no_block = 0;

// ------------------------------------------------------------------------ the image, field by field

struct Field {
    Block block;  // of what has no block: its name, kind and size
    std::size_t offset;
};

// What has no block: the header, and what is not used.
#define KESTA_UNNAMED(member, name, kind) \
    Field { {no_block, name, kind, sizeof(KESTA_VOLATILE::member), false, true}, offsetof(KESTA_VOLATILE, member) }

std::vector<Field> make_fields()
{
    std::vector<Field> all{KESTA_UNNAMED(alivemond, "alivemond", BlockKind::bytes),
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
    std::sort(all.begin(), all.end(), [](const Field &a, const Field &b) { return a.offset < b.offset; });
    return all;
}

#undef KESTA_UNNAMED

const std::vector<Field> &fields()
{
    static const std::vector<Field> all = make_fields();
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

std::vector<char> bytes_of(const Field &field, const std::vector<char> &image)
{
    const auto from = image.begin() + static_cast<std::ptrdiff_t>(field.offset);
    return {from, from + field.block.size};
}

bool is_stamped(const std::vector<char> &image)
{
    return std::string_view(image.data() + offsetof(KESTA_VOLATILE, magic), image_magic.size()) == image_magic;
}

// ------------------------------------------------------------------------------- init and clear

struct EraseOptions {
    bool yes = false;
    bool keep_data = false;
};

// What clearing loses, one line a field.
std::vector<std::string> contents(const std::vector<char> &image)
{
    std::vector<std::string> lines;
    for (const Field &field : fields()) {
        const std::vector<char> bytes = bytes_of(field, image);
        if (field.offset >= offsetof(KESTA_VOLATILE, cnttbl) && !all_zero(bytes)) {
            lines.push_back("NV memory, " + field.block.name + ": " + shown(decoded(field.block, bytes)) + " is lost");
        }
    }
    return lines;
}

// An image in use is not erased under those that use it. Without its stamp it is no image, and what
// stands where the locks would be says nothing.
void require_unlocked(const std::vector<char> &image)
{
    if (!is_stamped(image)) {
        return;
    }
    const LockState locks = read_lock_state();
    if (!locks.held.empty()) {
        refuse_locked("The NV image is in use.", locks, locks.held.front().controller);
    }
    if (const std::string holders = inner_lock_text(); !holders.empty()) {
        throw Failure(Exit::locked, "inner-lock-held",
                      "The NV image is in use: its inner lock is held by " + holders + ".",
                      "A holder that died is cleared by the next waiter after 30 seconds: run "
                      "'kestactl lock check', then this command again.");
    }
}

void clear_data()
{
    if (kestal_set_to_nvdata() != KESTA_OK) {
        fail_call("write-failed", "The NV image was not cleared.",
                  "Look at --trace 1 for the failed call, and check the storage firmware.");
    }
}

void stamp_header()
{
    if (kestal_set_magic_to_nv_header() != KESTA_OK) {
        fail_call("write-failed", "The header of the NV image was not written.",
                  "Look at --trace 1 for the failed call, and run the command again.");
    }
}

Plan plan_erase(const EraseOptions &options, bool stamps)
{
    require_writable();
    const std::vector<char> image = read_image();
    Plan plan;
    plan.shared = true;  // also where there is no stamp: a lock that is garbage is ignored by name
    plan.json["stamped"] = is_stamped(image);
    plan.json["lost"] = Json::array();
    if (!options.keep_data) {
        require_unlocked(image);
        const std::vector<std::string> lost = contents(image);
        plan.json["lost"] = lost;
        plan.steps.push_back({"clear everything behind the header of the NV image", lost, clear_data});
    }
    if (stamps) {
        plan.steps.push_back({"stamp the header", {"NV memory, magic: ENVV, layout version 2"}, stamp_header});
    }
    return plan;
}

Result erase(const EraseOptions &options, bool stamps, const Globals &globals)
{
    const Plan plan = plan_erase(options, stamps);
    const std::size_t lost = plan.json["lost"].size();
    if (!globals.dry_run && lost > 0) {
        confirm("This erases the NV image that all controllers share: " + std::to_string(lost) +
                    " fields that hold something.",
                options.yes);
    }
    Result result = carry_out(plan, globals);
    if (!globals.dry_run && !options.keep_data) {
        result.text +=
            "Next: 'kestactl repair' brings the mirrored items back from the system backup "
            "area, if it is good.\n";
    }
    return result;
}

// ------------------------------------------------------------------------------- flags and sync

struct FlagOptions {
    std::optional<int> synced;
    std::optional<int> req;
};

constexpr int flag_lowest = -128;
constexpr int flag_highest = 127;

void check_flags(int result, const std::string &what)
{
    if (result != KESTA_OK) {
        fail_call("flags-failed", what, "Look at --trace 1 for the failed call, and try again.");
    }
}

void set_flags(FlagOptions options)
{
    const int rw = KESTA_SYNC_WRITE | (options.synced ? KESTA_SYNC_SYNCED : 0) | (options.req ? KESTA_SYNC_REQ : 0);
    check_flags(kestal_flag_of_sync_nonvolatile(rw, options.synced ? &*options.synced : nullptr,
                                                options.req ? &*options.req : nullptr, learn_own_number()),
                "The synchronisation flags were not written.");
}

Result show_flags()
{
    int synced = 0;
    int req = 0;
    check_flags(kestal_flag_of_sync_nonvolatile(KESTA_SYNC_READ | KESTA_SYNC_SYNCED | KESTA_SYNC_REQ, &synced, &req,
                                                learn_own_number()),
                "The synchronisation flags could not be read.");
    Result result;
    result.text = "synced  " + std::to_string(synced) + "\nreq     " + std::to_string(req) + "\n";
    result.json = {{"synced", synced}, {"req", req}};
    return result;
}

Result flags(const FlagOptions &options, const Globals &globals)
{
    if (!options.synced && !options.req) {
        return show_flags();
    }
    require_writable();
    learn_own_number();
    Step step{"set the synchronisation flags", {}, [options] {
                  set_flags(options);
              }};
    Plan plan;
    plan.shared = true;
    if (options.synced) {
        step.writes.push_back("NV memory, synced: " + std::to_string(*options.synced));
        plan.json["synced"] = *options.synced;
    }
    if (options.req) {
        step.writes.push_back("NV memory, req: " + std::to_string(*options.req));
        plan.json["req"] = *options.req;
    }
    plan.steps.push_back(step);
    return carry_out(plan, globals);
}

void rewrite_regions()
{
    const int own = learn_own_number();
    kesta_clear_cause();
    if (kestal_sync_all_nonvolatile(own) != KESTA_OK) {
        fail_call("sync-failed", "NV memory was not rewritten whole.",
                  "Nothing is lost: each transfer is whole. Look at --trace 1, and try again.");
    }
    if (kesta_last_cause()->kind == KESTA_CAUSE_MEMORY) {  // the call tells of it nowhere else
        throw Failure(Exit::platform, "no-memory", "NV memory was not rewritten: no memory.",
                      "Free some memory, and try again.");
    }
}

Plan plan_sync()
{
    require_writable();
    learn_own_number();
    Plan plan;
    plan.shared = true;
    plan.steps.push_back({"rewrite NV memory as it is, so that the storage firmware passes it on",
                          {"NV memory, region 0: 32768 bytes", "NV memory, region 2: 32768 bytes"},
                          rewrite_regions});
    return plan;
}

// ------------------------------------------------------------------------------------------ dump

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

Json field_json(const Field &field, const std::vector<char> &bytes)
{
    return {{"name", field.block.name},
            {"block", field.block.id == no_block ? Json(nullptr) : Json(field.block.id)},
            {"offset", field.offset},
            {"size", field.block.size},
            {"value", decoded(field.block, bytes)},
            {"bytes", hex(bytes)}};
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
    for (const Field &field : fields()) {
        const std::vector<char> bytes = bytes_of(field, image);
        const std::string value =
            field.block.kind == BlockKind::bytes && all_zero(bytes) ? "(zeros)" : shown(decoded(field.block, bytes));
        char line[96];
        snprintf(line, sizeof(line), "%6zu %4u %5s  %-20s ", field.offset, field.block.size,
                 field.block.id == no_block ? "-" : std::to_string(field.block.id).c_str(), field.block.name.c_str());
        result.text += line + value + "\n";
        result.json["fields"].push_back(field_json(field, bytes));
    }
    return result;
}

namespace {

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

// --------------------------------------------------------------------------------- the options

void add_erasing(const Command &nv, Globals &globals, Action &action)
{
    auto options = std::make_shared<EraseOptions>();
    const Command init = nv.add_subcommand("init", "Make a new NV image: clear it, and stamp its header");
    init.add_flag("--yes", options->yes, "Don't ask before something is lost");
    init.add_flag("--keep-data", options->keep_data, "Stamp the header only");
    add_lock_rule(init, globals);
    add_dry_run(init, globals);
    init.callback([&action, options] {
        action = [options](const Globals &given) {
            return erase(*options, true, given);
        };
    });
    add_examples(init,
                 "  kestactl nv init --dry-run\n"
                 "  kestactl nv init --yes");

    const Command clear = nv.add_subcommand("clear", "Clear the NV image, and keep its header and the flags");
    clear.add_flag("--yes", options->yes, "Don't ask before something is lost");
    add_lock_rule(clear, globals);
    add_dry_run(clear, globals);
    clear.callback([&action, options] {
        action = [options](const Globals &given) {
            return erase(*options, false, given);
        };
    });
    add_examples(clear,
                 "  kestactl nv clear --dry-run\n"
                 "  kestactl nv clear --yes");
}

void add_flags(const Command &nv, Globals &globals, Action &action)
{
    auto options = std::make_shared<FlagOptions>();
    const Command command = nv.add_subcommand("flags", "Show or set the synchronisation flags");
    command.add_option("--synced", options->synced, "New value of the flag synced")
        .in_range(flag_lowest, flag_highest)
        .option_text("-128..127");
    command.add_option("--req", options->req, "New value of the flag req")
        .in_range(flag_lowest, flag_highest)
        .option_text("-128..127");
    add_lock_rule(command, globals);
    add_dry_run(command, globals);
    command.callback([&action, options] {
        action = [options](const Globals &given) {
            return flags(*options, given);
        };
    });
    add_examples(command,
                 "  kestactl nv flags\n"
                 "  kestactl nv flags --synced 1 --req 0");
}

void add_sync(const Command &nv, Globals &globals, Action &action)
{
    const Command command =
        nv.add_subcommand("sync", "Rewrite NV memory as it is, so that the storage firmware passes it on");
    add_lock_rule(command, globals);
    add_dry_run(command, globals);
    command.callback([&action] {
        action = [](const Globals &given) {
            return carry_out(plan_sync(), given);
        };
    });
    add_examples(command,
                 "  kestactl nv sync --dry-run\n"
                 "  kestactl nv sync");
}

void add_dump(const Command &nv, Action &action)
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

}  // namespace

void add_nv_image(const Command &nv, Globals &globals, Action &action)
{
    add_erasing(nv, globals, action);
    add_flags(nv, globals, action);
    add_sync(nv, globals, action);
    add_dump(nv, action);
}

}  // namespace kestactl
