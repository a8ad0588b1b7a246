#include "nv_memory.h"

#include <string.h>

#include <array>

#include "clause.h"

namespace platform_check
{

int transfer(bool writes, cpfw_nv_region_t region, std::uint64_t offset, void *bytes,
             std::uint64_t size)
{
    cpfw_nv_access_t access{bytes, offset, size};
    return writes ? zKTsanfwctl_write_nv(no_handle, &region, &access, 1)
                  : zKTsanfwctl_read_nv(no_handle, &region, &access, 1);
}

int write_nv(std::uint64_t offset, std::string bytes, cpfw_nv_region_t region)
{
    return transfer(true, region, offset, bytes.data(), bytes.size());
}

std::string read_nv(std::uint64_t offset, std::size_t size, cpfw_nv_region_t region)
{
    std::string bytes(size, '?');
    return transfer(false, region, offset, bytes.data(), size) == 0 ? bytes : refused_bytes;
}

namespace
{

Outcome keeps_what_is_written()
{
    for (const std::size_t size : {1U, 4U, 7U, 16U, 32U, 64U, 640U, 32768U}) {
        for (const cpfw_nv_region_t region : {image_region, other_region}) {
            const std::string bytes(size, static_cast<char>('a' + size % 26));
            if (write_nv(0, bytes, region) != 0) {
                return "a write of " + std::to_string(size) + " bytes to region " +
                       std::to_string(region) + " is refused";
            }
            if (read_nv(0, size, region) != bytes) {
                return std::to_string(size) + " bytes of region " + std::to_string(region) +
                       " are not read back as they were written";
            }
        }
    }
    return "";
}

Outcome regions_are_apart()
{
    if (write_nv(300, "image", image_region) != 0 || write_nv(300, "other", other_region) != 0) {
        return "a write is refused";
    }
    return read_nv(300, 5, image_region) == "image" && read_nv(300, 5, other_region) == "other"
               ? ""
               : "what is written to one region is read from another";
}

Outcome writes_touch_nothing_else()
{
    if (write_nv(96, std::string(64, '.')) != 0 || write_nv(104, "12345678") != 0 ||
        write_nv(115, "odd") != 0) {
        return "a write is refused";
    }
    return read_nv(96, 64) == "........12345678...odd" + std::string(42, '.')
               ? ""
               : "bytes beside it changed";
}

Outcome reads_fill_nothing_else()
{
    (void)write_nv(96, std::string(64, '.'));
    std::string bytes(24, '#');
    if (transfer(false, image_region, 99, bytes.data() + 8, 5) != 0) {
        return "a read of 5 bytes at offset 99 is refused";
    }
    return bytes == std::string(8, '#') + "....." + std::string(11, '#')
               ? ""
               : "a read of 5 bytes fills others than the 5 of the buffer";
}

Outcome records_are_left_alone()
{
    std::string bytes = "as it was";
    for (const bool writes : {true, false}) {
        cpfw_nv_region_t region = image_region;
        cpfw_nv_access_t access{bytes.data(), 400, bytes.size()};
        const int result = writes ? zKTsanfwctl_write_nv(no_handle, &region, &access, 1)
                                  : zKTsanfwctl_read_nv(no_handle, &region, &access, 1);
        if (result != 0) {
            return "a transfer is refused";
        }
        if (region != image_region || access.buffer != bytes.data() || access.offset != 400 ||
            access.length != bytes.size()) {
            return "region, buffer, offset or length changed: a repeated transfer goes elsewhere";
        }
        if (bytes != "as it was") {
            return "a write has changed the bytes that it was given";
        }
    }
    return "";
}

Outcome is_shared()
{
    if (!in_process([] { return write_nv(200, "from another process") == 0; })) {
        return "another process can't write";
    }
    if (read_nv(200, 20) != "from another process") {
        return "what another process wrote is not read";
    }
    return in_process([] { return read_nv(200, 4) == "from"; }) ? "" : "another process can't read";
}

Outcome transfers_are_whole()
{
    constexpr std::size_t size = 64;  // the inner lock's
    (void)write_nv(600, std::string(size, 'A'));
    return while_another_writes(
        [] {
            for (int i = 0; i < rounds * 10; ++i) {
                (void)write_nv(600, std::string(size, i % 2 == 0 ? 'A' : 'B'));
            }
        },
        []() -> Outcome {
            const std::string seen = read_nv(600, size);
            return seen == std::string(size, seen[0])
                       ? ""
                       : "half of one transfer was seen beside half of another";
        });
}

Outcome refuses_what_is_out_of_range()
{
    const std::string before = read_nv(region_size - 4, 4);
    std::string bytes(8, 'X');
    if (transfer(true, image_region, region_size - 4, bytes.data(), 8) == 0) {
        return "a write beyond the region's end succeeds";
    }
    if (transfer(false, image_region, region_size, bytes.data(), 4) == 0) {
        return "a read beyond the region's end succeeds";
    }
    if (transfer(false, image_region, ~std::uint64_t{3}, bytes.data(), 8) == 0) {
        return "a read at an offset below 0 succeeds";
    }
    if (transfer(false, ~0U, 0, bytes.data(), 4) == 0) {
        return "a read of a region that there is not succeeds";
    }
    return read_nv(region_size - 4, 4) == before ? "" : "a refused write has written";
}

Outcome serves_threads()
{
    return in_threads(12, [](int i) -> Outcome {
        const std::uint64_t offset = 1024 + 64 * static_cast<std::uint64_t>(i);
        for (int round = 0; round < rounds; ++round) {
            const std::string bytes(64, static_cast<char>('a' + (i + round) % 26));
            if (write_nv(offset, bytes) != 0 || read_nv(offset, 64) != bytes) {
                return "a thread does not read what it wrote";
            }
        }
        return "";
    });
}

// The records, over bytes that no platform can have meant twice.
struct Statuses {
    sanfw_getstatus_out two;
    sanfw_getstatus_ex_out four;
};

Outcome ask_status(Statuses &statuses, int before)
{
    memset(&statuses, before, sizeof(statuses));
    if (zKTsanfwctl_get_status(0, &statuses.two) != 0) {
        return "zKTsanfwctl_get_status is refused for kind 0";
    }
    return zKTsanfwctl_get_status_ex(1, &statuses.four) == 0
               ? ""
               : "zKTsanfwctl_get_status_ex is refused for kind 1";
}

Outcome status_is_told()
{
    Statuses once{};
    Statuses again{};
    for (const Outcome &outcome : {ask_status(once, 0xa5), ask_status(again, 0x5a)}) {
        if (!outcome.empty()) {
            return outcome;
        }
    }
    if (memcmp(&once.two, &again.two, 4) != 0) {
        return "zKTsanfwctl_get_status leaves bytes of the record as they were";
    }
    return memcmp(&once.four, &again.four, 8) == 0
               ? ""
               : "zKTsanfwctl_get_status_ex leaves bytes of the record as they were";
}

Outcome statuses_agree()
{
    Statuses told{};
    if (Outcome outcome = ask_status(told, 0); !outcome.empty()) {
        return outcome;
    }
    const std::array<std::uint8_t, 4> plain{told.two.cont0_sts, told.two.cont1_sts,
                                            told.two.card0_sts, told.two.card1_sts};
    const std::array<std::uint8_t, 4> extended{told.four.cont_sts[0], told.four.cont_sts[1],
                                               told.four.card_sts[0], told.four.card_sts[1]};
    return plain == extended ? "" : "the two forms differ about controller 0 or 1";
}

}  // namespace

Clauses nv_clauses()
{
    constexpr const char *library = "libsanfwctl";
    return {
        {library, "what is written is read back, in all sizes, in regions 0 and 2",
         keeps_what_is_written},
        {library, "each region has contents of its own", regions_are_apart},
        {library, "a write touches nothing beside it", writes_touch_nothing_else},
        {library, "a read fills what was asked for, and nothing beside it",
         reads_fill_nothing_else},
        {library, "a transfer leaves its records as they are", records_are_left_alone},
        {library, "all processes share the regions", is_shared},
        {library, "a transfer is seen whole or not at all", transfers_are_whole},
        {library, "a transfer beyond the end is refused, and does nothing",
         refuses_what_is_out_of_range},
        {library, "threads may transfer at once", serves_threads},
        {library, "the controller status is told, each byte of it", status_is_told},
        {library, "both forms of the controller status agree", statuses_agree},
    };
}

}  // namespace platform_check
