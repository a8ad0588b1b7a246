#include "fuzzed_appliance.h"

#include <gtest/gtest.h>
#include <kesta/kesta.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <string>

#include "contract.h"
#include "scratch_root.h"
#include "test_platform.h"

namespace fuzz {
namespace {

namespace fs = std::filesystem;

enum class Kind { area, file, command, platform };

struct Place {
    Kind kind;
    const char *name;
};
constexpr std::array places{
    Place{Kind::area, "kesta_sysback"},
    Place{Kind::area, "kesta_sysacpt"},
    Place{Kind::area, "kesta_verid"},
    Place{Kind::area, "kesta_verback"},
    Place{Kind::area, "kesta_ver0"},
    Place{Kind::area, "kesta_ver1"},
    Place{Kind::area, "kesta_ver2"},
    Place{Kind::area, "kesta_ver3"},
    Place{Kind::area, "kesta_wwn"},
    Place{Kind::area, "kesta_reboot"},
    Place{Kind::area, "kesta_serialno"},
    Place{Kind::area, "kesta_guid"},
    Place{Kind::area, KESTA_SLOT0},
    Place{Kind::area, KESTA_SLOT1},
    Place{Kind::file, "/etc/kesta_sys/wwn"},
    Place{Kind::file, "/etc/cp_guid"},
    Place{Kind::file, "/etc/nodename"},
    Place{Kind::file, "/etc/kesta_sys/version"},
    Place{Kind::file, "/etc/kesta_sys/reboot"},
    Place{Kind::file, "/opt/kesta_sys/bakup/.restore"},
    Place{Kind::file, "/opt/kesta_sys/bakup/backup.tar.Z"},
    Place{Kind::file, "/opt/kesta_sys/bakup/accept.tar.Z"},
    Place{Kind::command, "/usr/sbin/cpinfo -i"},
    Place{Kind::command, "/usr/sbin/cpinfo -N"},
    Place{Kind::command, "/usr/sbin/cpinfo -b"},
    Place{Kind::command, "/usr/sbin/eeprom cp_wwn | cut -d '=' -f2"},
    Place{Kind::command, "/usr/sbin/eeprom cp_serial_number | cut -d '=' -f2"},
    Place{Kind::command, "/opt/kesta_sys/sbin/env_vpdctl -r 2> /dev/null"},
    Place{Kind::platform, ""},
};

void set_platform(const std::string &bytes)
{
    test::Platform &platform = test::platform();
    std::array<std::uint8_t, 10> values{};
    std::copy_n(bytes.begin(), std::min(bytes.size(), values.size()), values.begin());
    std::copy_n(values.begin(), 4, platform.cont_sts);
    std::copy_n(values.begin() + 4, 4, platform.card_sts);
    platform.master = values[8];
    platform.own_record = values[9] % 2;
}

void put(const Place &place, const std::string &bytes)
{
    test::Platform &platform = test::platform();
    switch (place.kind) {
    case Kind::area:
        platform.sysback[place.name] = {bytes};
        break;
    case Kind::file:
        std::ofstream(place.name, std::ios::binary) << bytes;
        break;
    case Kind::command:
        platform.commands[place.name] = {bytes, 0};
        break;
    case Kind::platform:
        set_platform(bytes);
    }
}

// What is not told otherwise: a controller 0 of four, in normal mode, with commands that print
// nothing.
void clear()
{
    test::reset(-1);
    for (const Place &place : places) {
        if (place.kind == Kind::file) {
            unlink(place.name);
        } else if (place.kind == Kind::command) {
            test::platform().commands[place.name] = {};
        }
    }
    test::platform().commands["/usr/sbin/cpinfo -i"] = {"0\n"};
    test::platform().commands["/usr/sbin/cpinfo -N"] = {"4\n"};
    test::platform().commands["/usr/sbin/cpinfo -b"] = {"normal\n"};
}

}  // namespace

void prepare_appliance()
{
    GTEST_FLAG_SET(throw_on_failure, true);  // what the platform expects of its callers
    test::platform().run_system = true;      // until the first input: libFuzzer runs itself to merge corpora
    make_scratch_root(Proc::lent);
    const Visit visit;
    for (const char *folder :
         {"/etc/kesta_sys", "/opt/kesta_sys/bakup", "/tmp/kesta_sys/tmp", "/var/run/kesta_sys/tmp", "/dev"}) {
        fs::create_directories(folder);
    }
    std::ofstream("/dev/null") << "";
}

void fill_appliance(const uint8_t *data, size_t size)
{
    clear();
    const size_t image = std::min(size, sizeof(KESTA_VOLATILE));
    memcpy(test::platform().nv.data(), data, image);
    for (size_t at = image; at + 3 <= size;) {
        const Place &place = places[data[at] % places.size()];
        const size_t length = std::min<size_t>(data[at + 1] + 256U * data[at + 2], size - at - 3);
        put(place, {reinterpret_cast<const char *>(data) + at + 3, length});
        at += 3 + length;
    }
}

void require_closed()
{
    require(test::platform().open_handles == 0, "a file of the area is left open");
    require(test::platform().open_pipes == 0, "a pipe is left open");
}

}  // namespace fuzz
