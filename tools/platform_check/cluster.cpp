#include <string.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <fstream>

#include "clause.h"
#include "kesta/paths.h"
#include "vrbapi.h"

namespace platform_check {
namespace {

constexpr const char *integer_file = KESTA_GROUP_DIRECTORY ".platform_check";
constexpr unsigned char range_flag = 1;
constexpr int controllers = 4;

int set_integer(int value)
{
    _VRBAPIERRINFO error{};
    return vrbapi_setint_to_file(integer_file, value, &error);
}

int get_integer(int lowest, int highest, int &value)
{
    _VRBAPIERRINFO error{};
    return vrbapi_getint_from_file(integer_file, range_flag, lowest, highest, &value, &error);
}

Outcome integers_are_kept()
{
    for (const int value : {0, 3, INT_MAX, 1}) {
        int read = -1;
        if (set_integer(value) != 0) {
            return "an integer can't be written to " + std::string(integer_file);
        }
        if (get_integer(0, INT_MAX, read) != 0 || read != value) {
            return "an integer is not read back";
        }
    }
    return "";
}

Outcome ranges_are_checked()
{
    int read = -1;
    for (const int bound : {1, 4}) {
        if (set_integer(bound) != 0 || get_integer(1, 4, read) != 0 || read != bound) {
            return "a bound itself is refused";
        }
    }
    (void)set_integer(5);
    if (get_integer(1, 4, read) == 0) {
        return "an integer above the highest value is accepted";
    }
    (void)set_integer(0);
    if (get_integer(1, 4, read) == 0) {
        return "an integer below the lowest value is accepted";
    }
    std::ofstream(integer_file) << "no number\n";
    return get_integer(0, 3, read) != 0 ? "" : "a file that has no number in it is accepted";
}

// Filled, and nothing beyond it.
Outcome told(const char *what, int result, const _VRBAPIERRINFO &error)
{
    if (result == 0) {
        return std::string(what) + " succeeds";
    }
    return error.s_errno != 0 ? "" : "the error record is not filled on failure";
}

Outcome failures_are_told()
{
    (void)unlink(integer_file);
    int read = -1;
    _VRBAPIERRINFO error{};
    const int got = vrbapi_getint_from_file(integer_file, range_flag, 0, 3, &read, &error);
    if (Outcome outcome = told("reading a file that does not exist", got, error); !outcome.empty()) {
        return outcome;
    }
    error = {};
    const int set = vrbapi_setint_to_file(KESTA_GROUP_DIRECTORY ".no_such_folder/number", 1, &error);
    return told("writing to a folder that does not exist", set, error);
}

// Every program reads these files when it starts, while another may write them.
Outcome integers_are_replaced_whole()
{
    (void)set_integer(1);
    return while_another_writes(
        [] {
            for (int i = 0; i < rounds; ++i) {
                (void)set_integer(i % 2 == 0 ? 1000000 : 1);
            }
        },
        []() -> Outcome {
            int read = -1;
            return get_integer(0, INT_MAX, read) == 0 && (read == 1 || read == 1000000)
                       ? ""
                       : "a reader saw neither the old integer nor the new one";
        });
}

Outcome master_is_told()
{
    std::uint8_t master = 255;
    _VRBAPIERRINFO error{};
    int extra = 0;
    if (vrbgetsanfwinfo(VRB_SANFWINFO_MASTER, &master, &error, &extra) != 0) {
        return "vrbgetsanfwinfo is refused for kind 1";
    }
    return master < controllers ? "" : "the master is controller " + std::to_string(master);
}

Outcome network_is_told()
{
    std::array<vrb_netconfig_t, 2> records{};
    memset(records.data(), 0xa5, sizeof(records));
    if (vrbgetnetconfig(records.data()) != 0) {
        return "vrbgetnetconfig fails";
    }
    for (const vrb_netconfig_t &record : records) {
        if (record.cntno < 0 || record.cntno >= controllers) {
            return "a record is of controller " + std::to_string(record.cntno);
        }
        if (record.address.s_addr == 0xa5a5a5a5 || record.address.s_addr == 0) {
            return "a record has no address";
        }
    }
    return records[0].cntno != records[1].cntno ? "" : "both records are of one controller";
}

}  // namespace

Clauses cluster_clauses()
{
    constexpr const char *library = "libvrbapi";
    return {
        {library, "an integer is read back", integers_are_kept},
        {library, "both bounds are checked when an integer is read", ranges_are_checked},
        {library, "failures are told, and fill the error record", failures_are_told},
        {library, "an integer is replaced whole", integers_are_replaced_whole},
        {library, "the master is a controller's number", master_is_told},
        {library, "the network configuration has two controllers, each with its address", network_is_told},
    };
}

}  // namespace platform_check
