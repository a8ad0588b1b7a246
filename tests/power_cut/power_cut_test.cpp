// The power fails while names are switched, versions change, and one place is repaired from the other:
// at every step, with every order in which the disk may have got what was not flushed yet. Afterwards
// nothing reads as something that was never written, one of the two places is whole, and a repair can
// be made. And each flush of the platform is needed: without it, something of this fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <kesta/kesta.h>
#include <stdlib.h>
#include <string.h>

#include <filesystem>
#include <optional>

#include "controller_state.h"
#include "disk_recorder.h"
#include "mirror.h"
#include "repair_state.h"
#include "sanfwctl.h"
#include "sbacc.h"

using namespace test;
namespace fs = std::filesystem;

namespace {

std::string base;
std::string nv() { return base + "/nv"; }
std::string area() { return base + "/sysback"; }
std::vector<std::string> folders() { return {nv(), area()}; }

std::string padded(std::string text, std::size_t size)
{
    text.resize(size, '\0');
    return text;
}

std::string number(int value) { return {reinterpret_cast<const char *>(&value), sizeof(value)}; }

struct Item {
    int block;
    std::size_t size;
    bool in_memory;
};
constexpr Item items[] = {{31, 32, true}, {32, 32, true},  {51, 4, true},   {52, 4, true},
                          {61, 4, true},  {62, 4, true},   {63, 4, true},   {64, 4, true},
                          {55, 4, false}, {201, 16, true}, {202, 16, true}, {203, 20, true}};

// What the threads of a repair take for the controllers' versions: this controller's own.
std::optional<int> own_version;

std::string value_of(const Item &item)
{
    if (own_version && item.block >= 61 && item.block <= 64) {
        return number(*own_version);
    }
    switch (item.block) {
    case 31:
        return padded("kesta_backup0", 32);
    case 32:
        return padded("kesta_backup1", 32);
    case 201:
    case 202:
    case 203:
        return std::string(item.size, static_cast<char>('a' + item.block - 201));
    default:
        return number(1000 + item.block);
    }
}

// What a place holds for a block, or nothing where it can't be read.
std::optional<std::string> in_memory(const Item &item)
{
    std::string bytes(item.size, '?');
    return kestal_non_volatile_rw_memory(item.block, 2, bytes.data(), static_cast<unsigned>(item.size)) == 0
               ? std::optional(bytes)
               : std::nullopt;
}

std::optional<std::string> on_disk(const Item &item)
{
    std::string bytes(item.size, '\0');
    return kestal_non_volatile_rw_sysback(item.block, 1, bytes.data(), static_cast<unsigned>(item.size)) == 0
               ? std::optional(bytes)
               : std::nullopt;
}

void put(const Item &item, std::string bytes, bool memory, bool disk)
{
    const unsigned size = static_cast<unsigned>(bytes.size());
    if (memory && item.in_memory) {
        ASSERT_EQ(kestal_non_volatile_rw_memory(item.block, 1, bytes.data(), size), 0);
    }
    if (disk) {
        ASSERT_EQ(kestal_non_volatile_rw_sysback(item.block, 2, bytes.data(), size), 0);
    }
}

void fill(bool memory, bool disk)
{
    for (const Item &item : items) {
        put(item, value_of(item), memory, disk);
    }
}

std::string describe(const Item &item, const char *place)
{
    return "block " + std::to_string(item.block) + " " + place;
}

// The inner lock's slots are free, or hold a claim as it was written.
std::string check_slots()
{
    KESTA_INNERLOCK_BUF slots[4];
    if (kestal_non_volatile_rw_memory(101, 2, slots, sizeof(slots)) != 0) {
        return "the inner lock can't be read";
    }
    for (const KESTA_INNERLOCK_BUF &slot : slots) {
        const bool is_free = slot.status == 0 && slot.timeout == 0;
        const bool is_held = slot.status == 1 && slot.timeout >= 1 && slot.timeout <= 10000;
        if (slot.filler != 0 || (!is_free && !is_held)) {
            return "a torn slot of the inner lock";
        }
    }
    return "";
}

// Something that is done, the disk before it, and what has to hold on every disk that is left.
struct Scenario {
    std::string name;
    std::function<void()> prepare;
    std::vector<std::function<int()>> operations;
    std::function<std::string(int returned)> complaint;  // empty: all is well
};

Recording run(const Scenario &scenario)
{
    put_disk(folders(), {});
    kestal_rw_set_boot_mode(0);
    kesta::set_cached(controller_state.own_number, 0);
    own_version.reset();
    scenario.prepare();
    record(folders());
    for (const auto &operation : scenario.operations) {
        EXPECT_EQ(operation(), 0) << scenario.name;
        operation_returned();
    }
    return recorded();
}

void PrintTo(const Scenario &scenario, std::ostream *out) { *out << scenario.name; }

// The first thing that is wrong after a power cut, without the flushes of one kind; empty if nothing is.
std::string first_complaint(const Scenario &scenario, const Recording &recording, const std::string &left_out,
                            int &cuts)
{
    std::string found;
    skip_flushes(true);
    for_each_power_cut(recording, left_out, [&](const Disk &disk, int returned) {
        put_disk(folders(), disk);
        kestal_rw_set_boot_mode(0);
        found = scenario.complaint(returned);
        ++cuts;
        return found.empty();
    });
    skip_flushes(false);
    return found;
}

// ------------------------------------------------------------------------------- what is checked

using Values = std::map<int, std::string>;

// Each block holds its old or its new value in both places; the new one in what has returned.
std::string old_or_new(const Values &changed, const std::function<bool(int block)> &is_new)
{
    for (const Item &item : items) {
        const auto change = changed.find(item.block);
        const std::string before = value_of(item);
        const std::string after = change == changed.end() ? before : change->second;
        const auto wrong = [&](const std::optional<std::string> &value) {
            return !value || (*value != after && (*value != before || is_new(item.block)));
        };
        if (item.in_memory && wrong(in_memory(item))) {
            return describe(item, "in memory");
        }
        if (wrong(on_disk(item))) {
            return describe(item, "on disk");
        }
    }
    if (kestal_repair_memory_sysback(nullptr, 0) != 0) {
        return "it can't be repaired";
    }
    return check_slots();
}

// One place is as it was, whole; in the other each item is there whole, or not at all. Once the
// repair has returned, or was made again, both are whole.
std::string repaired(bool memory, bool done, const std::function<int()> &again)
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        for (const Item &item : items) {
            const bool only_there = !item.in_memory && !memory;  // nothing to copy it from
            const std::string whole = only_there ? number(0) : value_of(item);
            const auto source = memory ? on_disk(item) : in_memory(item);
            if ((item.in_memory || memory) && source != whole) {
                return describe(item, "where it is copied from");
            }
            if (memory && !item.in_memory) {
                continue;
            }
            const auto copy = memory ? in_memory(item) : on_disk(item);
            const bool nothing = memory ? copy == std::string(item.size, '\0') : !copy;
            if (copy != whole && (!nothing || done)) {
                return describe(item, done ? "is not there after a repair" : "is torn");
            }
        }
        if (attempt == 0 && again() != 0) {
            return "the repair can't be made again";
        }
        done = true;
    }
    return check_slots();
}

int copy_all(bool to_memory)
{
    repair_state.with_supplied_values = 0;
    return kestal_repair_allitem(to_memory ? KESTA_REPAIR_FROM_SYSBACK : KESTA_REPAIR_FROM_MEMORY, nullptr, 0);
}

int transfer(bool writes, std::uint64_t offset, std::string &bytes)
{
    cpfw_nv_region_t region = 2;
    cpfw_nv_access_t access{bytes.data(), offset, bytes.size()};
    return writes ? zKTsanfwctl_write_nv(-1, &region, &access, 1) : zKTsanfwctl_read_nv(-1, &region, &access, 1);
}

int write_nv(std::uint64_t offset, std::string bytes) { return transfer(true, offset, bytes); }

std::string read_nv(std::uint64_t offset, std::size_t size)
{
    std::string bytes(size, '?');
    return transfer(false, offset, bytes) == 0 ? bytes : "unreadable";
}

int write_area(const char *name, const std::string &bytes)
{
    int handle = -1;
    int close_flag = 0;
    if (sbacc_open(name, "w", &handle, &close_flag) < 0) {
        return -1;
    }
    const int written = sbacc_write(bytes.data(), static_cast<unsigned>(bytes.size()), 0, handle);
    return sbacc_close(handle) == 0 && written == static_cast<int>(bytes.size()) ? 0 : -1;
}

int record_size(const char *name, unsigned size)
{
    int handle = -1;
    int close_flag = 0;
    if (sbacc_open(name, "w", &handle, &close_flag) < 0) {
        return -1;
    }
    const int result = sbacc_write_size(size, handle);
    return sbacc_close(handle) == 0 ? result : -1;
}

std::string read_area(const char *name)
{
    void *data = nullptr;
    unsigned size = 0;
    std::string bytes = "unreadable";
    if (kestal_backup_rw(name, 1, &data, &size) == 0) {
        bytes.assign(static_cast<const char *>(data), size);
    }
    kestal_free_debug(data, __FILE__, __LINE__, 0);
    return bytes;
}

// ---------------------------------------------------------------------------------- the scenarios

Scenario slot_switch()
{
    const auto change = [](const char *accept, const char *backup, int flag) {
        std::string accept_name = padded(accept, 32);
        std::string backup_name = padded(backup, 32);
        return kestal_change_address(accept_name.data(), backup_name.data(), flag);
    };
    const Values changed{{32, padded("kesta_backup0", 32)}, {31, padded("kesta_backup1", 32)}};
    return {"the slots are switched",
            [] { fill(true, true); },
            {[change] { return change("kesta_backup0", "kesta_backup1", KESTA_OFF); },
             [change] {
                 return change("kesta_backup0", "kesta_backup1", KESTA_ON);
             }},
            [changed](int returned) {
                return old_or_new(changed, [returned](int block) {
                    return (block == 32 && returned > 0) || (block == 31 && returned > 1);
                });
            }};
}

Scenario version_change()
{
    const Values changed{{61, number(7)}, {52, number(8)}};
    return {"versions change",
            [] { fill(true, true); },
            {[] { return kestal_set_version(KESTA_VER_AREA_CURRENT, 0, 7); },
             [] {
                 return kestal_set_version(KESTA_VER_AREA_BACKUP, 0, 8);
             }},
            [changed](int returned) {
                return old_or_new(changed, [returned](int block) {
                    return (block == 61 && returned > 0) || (block == 52 && returned > 1);
                });
            }};
}

Scenario repair_of_memory()
{
    return {"NV memory that was never written is repaired",
            [] { fill(false, true); },
            {[] {
                return kestal_repair_memory_sysback(nullptr, 0);
            }},
            [](int returned) {
                return repaired(true, returned > 0, [] { return copy_all(true); });
            }};
}

Scenario repair_of_disk()
{
    return {"an emptied system backup area is repaired",
            [] { fill(true, false); },
            {[] {
                return kestal_repair_memory_sysback(nullptr, 0);
            }},
            [](int returned) {
                return repaired(false, returned > 0, [] { return copy_all(false); });
            }};
}

Scenario repair_in_threads()
{
    return {"NV memory is repaired by twelve threads",
            [] {
                int version = 0;
                ASSERT_EQ(kestal_read_flash_version_file(&version, KESTA_FLASH_VERSION), 0);
                own_version = version;
                fill(false, true);
            },
            {[] {
                static char version[2][4];  // nobody asks here what they were
                return kestal_repair_memory_from_sysback(nullptr, 0, version[0], version[1]);
            }},
            [](int returned) {
                return repaired(true, returned > 0, [] { return copy_all(true); });
            }};
}

// A copy that is cut short must not pass for a good place: the names come last.
Scenario repair_that_shows_its_end(engine::Side from)
{
    const bool to_memory = from == engine::Side::disk;
    const auto copy = [from] {
        std::string failed;
        return engine::copy_items(engine::read_mirror(), from, failed);
    };
    return {std::string("the operator's repair of ") + (to_memory ? "memory" : "the disk"),
            [to_memory] {
                fill(true, true);
                for (const Item &item : items) {  // valid names, and other values
                    if (item.size == 4) {
                        put(item, number(5), to_memory, !to_memory);
                    }
                }
            },
            {copy},
            [from, copy](int returned) -> std::string {
                const engine::MirrorState state = engine::read_mirror();
                if (!state.valid(from)) {
                    return "the good place is not good any more";
                }
                const bool untouched =
                    std::none_of(state.items.begin(), state.items.end(), [](const engine::MirroredItem &item) {
                        return item.block->in_memory && item.block->size == 4 && !item.differs();
                    });
                if (state.valid(engine::other(from)) && state.differ() && !untouched) {
                    return "a copy that is half made passes for a good place";
                }
                if (returned > 0 && state.differ()) {
                    return "the copy has not reached its place";
                }
                return copy() == 0 && !engine::read_mirror().differ() ? "" : "no second repair";
            }};
}

Scenario image_init()
{
    const std::string before(640, 'x');
    return {"the NV image is made anew",
            [before] { ASSERT_EQ(write_nv(24, before), 0); },
            {kestal_set_to_nvdata, kestal_set_magic_to_nv_header},
            [before](int returned) -> std::string {
                const std::string data = read_nv(24, 640);
                if (data != std::string(640, '\0') && (data != before || returned > 0)) {
                    return "the data";
                }
                const std::string header = read_nv(8, 8);
                const std::string stamp = "ENVV" + number(2);
                return header == stamp || (header == std::string(8, '\0') && returned < 2) ? "" : "the header";
            }};
}

Scenario whole_rewrite()
{
    return {"NV memory is rewritten whole",
            [] {
                fill(true, true);
                ASSERT_EQ(write_nv(4096, std::string(8192, 'y')), 0);
            },
            {[] {
                return kestal_sync_all_nonvolatile(0);
            }},
            [](int) {
                return read_nv(4096, 8192) == std::string(8192, 'y') ? old_or_new({}, [](int) { return true; })
                                                                     : "the rest of the region";
            }};
}

// Several pages, so that half a transfer can reach the disk without its other half.
Scenario long_transfers()
{
    return {"transfers over several pages",
            [] { ASSERT_EQ(write_nv(0, std::string(12288, 'o')), 0); },
            {[] { return write_nv(4000, std::string(200, '1')); },
             [] {
                 return write_nv(8100, std::string(200, '2'));
             }},
            [](int returned) -> std::string {
                const std::string first = read_nv(4000, 200);
                const std::string second = read_nv(8100, 200);
                const auto is = [](const std::string &text, char c) {
                    return text == std::string(200, c);
                };
                if (!is(first, '1') && (!is(first, 'o') || returned > 0)) {
                    return "the first transfer";
                }
                return is(second, '2') || (is(second, 'o') && returned < 2) ? "" : "the second one";
            }};
}

Scenario first_transfer_ever()
{
    return {"the first transfer of a region",
            [] {},
            {[] {
                return write_nv(100, "first");
            }},
            [](int returned) -> std::string {
                const std::string bytes = read_nv(100, 5);
                return bytes == "first" || (bytes == std::string(5, '\0') && returned == 0) ? "" : bytes;
            }};
}

// The power fails while a transfer is finished that a power cut had interrupted.
Scenario interrupted_twice()
{
    const auto half_made = [] {
        ASSERT_EQ(write_nv(0, std::string(12288, 'o')), 0);
        record(folders());
        ASSERT_EQ(write_nv(4000, std::string(200, '1')), 0);
        Disk chosen;
        for_each_power_cut(recorded(), "", [&](const Disk &disk, int) {
            // The journal holds the transfer, and the image has not got it yet.
            const std::string &journal = disk.at(nv() + "/region2.jnl");
            const std::string &image = disk.at(nv() + "/region2.img");
            const bool found = journal[0] != 0 && image.find('1') == std::string::npos;
            if (found) {
                chosen = disk;
            }
            return !found;
        });
        ASSERT_FALSE(chosen.empty());
        put_disk(folders(), chosen);
    };
    return {"a transfer is finished after a power cut",
            half_made,
            {[] { return read_nv(0, 1) == "o" ? 0 : -1; },
             [] {
                 return write_nv(9000, std::string(100, '2'));
             }},
            [](int returned) -> std::string {
                if (read_nv(4000, 200) != std::string(200, '1')) {
                    return "the transfer that the journal held";
                }
                const std::string second = read_nv(9000, 100);
                return second == std::string(100, '2') || (second == std::string(100, 'o') && returned < 2)
                           ? ""
                           : "the next transfer";
            }};
}

Scenario recorded_size()
{
    const std::string before = "a longer text than the record tells";
    return {"a file with a recorded size is replaced",
            [before] {
                ASSERT_EQ(write_area("archive", before), 0);
                ASSERT_EQ(record_size("archive", 8), 0);
            },
            {[] { return write_area("archive", "new contents"); },
             [] {
                 return record_size("archive", 3);
             }},
            [before](int returned) -> std::string {
                const std::string now = read_area("archive");
                // The record goes first, so for a moment the old contents are whole again.
                const bool old = now == before.substr(0, 8) || now == before;
                const bool good = returned == 0   ? old || now == "new contents"
                                  : returned == 1 ? now == "new contents" || now == "new"
                                                  : now == "new";
                return good ? "" : now;
            }};
}

std::vector<Scenario> scenarios()
{
    return {slot_switch(),
            version_change(),
            repair_of_memory(),
            repair_of_disk(),
            repair_in_threads(),
            repair_that_shows_its_end(engine::Side::disk),
            repair_that_shows_its_end(engine::Side::memory),
            image_init(),
            whole_rewrite(),
            long_transfers(),
            first_transfer_ever(),
            interrupted_twice(),
            recorded_size()};
}

}  // namespace

class PowerCut : public testing::TestWithParam<Scenario> {};

TEST_P(PowerCut, LeavesNothingTorn)
{
    const Recording recording = run(GetParam());
    int cuts = 0;
    EXPECT_EQ(first_complaint(GetParam(), recording, "", cuts), "") << GetParam().name;
    EXPECT_GT(cuts, 1);
    RecordProperty("power_cuts", cuts);
}

INSTANTIATE_TEST_SUITE_P(Everywhere, PowerCut, testing::ValuesIn(scenarios()), [](const auto &tested) {
    std::string name = tested.param.name;
    std::erase_if(name, [](char c) { return isalnum(c) == 0; });
    return name;
});

TEST(PowerCutFlushes, EachIsNeeded)
{
    std::map<std::string, std::string> broken;  // by flush: what fails without it
    for (const Scenario &scenario : scenarios()) {
        const Recording recording = run(scenario);
        for (const std::string &flush : recording.flushes()) {
            int cuts = 0;
            if (std::string &found = broken[flush]; found.empty()) {
                const std::string complaint = first_complaint(scenario, recording, flush, cuts);
                found = complaint.empty() ? "" : scenario.name + ": " + complaint;
            }
        }
    }
    std::vector<std::string> names;
    for (const auto &[flush, complaint] : broken) {
        EXPECT_NE(complaint, "") << "nothing fails without the flush of " << flush;
        names.push_back(flush);
        std::printf("without %s: %s\n", flush.c_str(), complaint.c_str());
    }
    EXPECT_THAT(names, testing::SizeIs(testing::Ge(9)));
}

int main(int argc, char **argv)
{
    const char *parent = getenv("KESTA_POWER_CUT_FOLDER");
    std::string folder = std::string(parent ? parent : "/tmp") + "/kesta-power-cut-XXXXXX";
    if (!mkdtemp(folder.data())) {
        perror(folder.c_str());
        return 1;
    }
    base = fs::canonical(folder);
    fs::create_directories(nv());
    fs::create_directories(area());
    setenv("KESTA_PLATFORM_CONF", (base + "/none.conf").c_str(), 1);
    setenv("KESTA_PLATFORM_NV_DIR", nv().c_str(), 1);
    setenv("KESTA_PLATFORM_SYSBACK_DIR", area().c_str(), 1);
    setenv("KESTA_PLATFORM_NV_SYNC", "1", 1);
    setenv("KESTA_PLATFORM_TRACE_TARGET", "none", 1);
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    fs::remove_all(base);
    return result;
}
