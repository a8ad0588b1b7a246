// Each changing verb with each call of the platform and the system failing, once and from then on: what it says is
// true, nothing stays locked or open, and no whole archive is lost.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <kesta/kesta.h>
#include <sys/stat.h>

#include <filesystem>

#include "archive_places.h"
#include "mended_appliance.h"
#include "private_root.h"
#include "test_platform.h"

using namespace test;

namespace {

#ifdef KESTA_FEWER_STATES
constexpr long step = 7;
#else
constexpr long step = 1;
#endif

constexpr const char *settings = "/etc/app/settings";

using Words = std::vector<std::string>;

struct Verb {
    const char *name;
    Words words;
    // What has to be there before it.
    std::function<void(MendedAppliance &)> prepare = [](MendedAppliance &) {
    };
};

void PrintTo(const Verb &verb, std::ostream *out) { *out << verb.name; }

// The same archive is to be made in every run.
void write_settings(const std::string &text)
{
    write_file(settings, text);
    const timespec long_ago[] = {{1'700'000'000, 0}, {1'700'000'000, 0}};
    for (const char *path : {settings, "/etc/app", "/etc"}) {
        ASSERT_EQ(utimensat(AT_FDCWD, path, long_ago, 0), 0);
    }
}

void define_group()
{
    std::filesystem::remove_all("/etc/app");  // what an unfinished restore of the run before has left
    write_file("/etc/kesta_sys/app/define.xml",
               "<?xml version=\"1.0\"?>\n<group id=\"app\" operation=\"update\" type=\"files\">"
               "<setinfo><file path=\"/etc/app\"/></setinfo></group>\n");
    write_settings("running\n");
}

void save_first(MendedAppliance &appliance)
{
    const Ran saved = appliance.run({"kestactl", "save", "app"});
    ASSERT_EQ(saved.exit, 0) << saved.text;
}

void save_and_change(MendedAppliance &appliance)
{
    save_first(appliance);
    write_settings("changed\n");
}

// What can be undone: a save, and the files of it back over others.
void restore_and_tell(MendedAppliance &appliance)
{
    for (const char *verb : {"save", "restore"}) {
        const Ran ran = appliance.run_and_tell({"kestactl", verb, "app"});
        ASSERT_EQ(ran.exit, 0) << ran.text;
        write_settings("changed\n");
    }
}

const std::vector<Verb> verbs{
    {"save", {"kestactl", "save", "app"}},
    {"accept", {"kestactl", "accept"}, save_first},
    {"restore", {"kestactl", "restore", "app"}, save_and_change},
    {"copy_archive",
     {"kestactl", "copy", "archive", "flash:backup", "slot:kesta_backup0"},
     [](MendedAppliance &appliance) {
         appliance.damage(2, Damage::flipped);
     }},
    {"copy_to_flash",
     {"kestactl", "copy", "archive", "slot:kesta_backup1", "flash:accept"},
     [](MendedAppliance &appliance) {
         appliance.damage(1, Damage::cut);
     }},
    {"repair",
     {"kestactl", "repair", "--from", "memory"},
     [](MendedAppliance &) {
         platform().sysback["kesta_verback"] = {std::string("\x07\0\0\0", 4)};
         platform().sysback.erase("kesta_guid");
     }},
    {"slot_switch", {"kestactl", "slot", "switch"}},
    {"version_set", {"kestactl", "version", "set", "backup", "12"}},
    {"version_next", {"kestactl", "version", "next"}},
    {"nv_write", {"kestactl", "nv", "write", "wwn", "500000E0D0123400"}},
    {"identity_set", {"kestactl", "identity", "set", "--wwn", "500000E0D0123400", "--in", "nv", "--in", "flash"}},
    {"leftovers_clear",
     {"kestactl", "leftovers", "clear", engine::unfinished_flash_copy},
     [](MendedAppliance &) {
         write_file(engine::unfinished_flash_copy, MendedAppliance::archive(77));
     }},
    {"undo", {"kestactl", "undo", "--yes"}, restore_and_tell},
    {"verify_fix",
     {"kestactl", "verify", "--fix", "--yes"},
     [](MendedAppliance &appliance) {
         appliance.damage(0, Damage::flipped);
         appliance.damage(3, Damage::absent);
     }},
};

// What each place holds.
std::map<std::string, std::string> state()
{
    std::map<std::string, std::string> all;
    all["NV memory"] = std::string(reinterpret_cast<const char *>(platform().nv.data()), sizeof(KESTA_VOLATILE));
    for (const auto &[name, file] : platform().sysback) {
        all[name] = file.bytes;
    }
    for (const char *path :
         {engine::flash_backup, engine::flash_accept, "/etc/kesta_sys/version", "/etc/kesta_sys/wwn", settings}) {
        all[path] = exists(path) ? read_file(path) : "none";
    }
    return all;
}

// The first place that differs.
std::string difference(const std::map<std::string, std::string> &one, const std::map<std::string, std::string> &other)
{
    for (const auto &[place, bytes] : one) {
        if (!other.contains(place) || other.at(place) != bytes) {
            return place;
        }
    }
    return one.size() == other.size() ? "" : "something that is new";
}

bool inner_lock_is_free()
{
    for (std::size_t i = 0; i < KESTA_CONTROLLERS; ++i) {
        if (platform().int_at(offsetof(KESTA_VOLATILE, innerlock) + i * sizeof(KESTA_INNERLOCK_BUF)) != 0) {
            return false;
        }
    }
    return true;
}

class VerbsUnderFaults : public testing::TestWithParam<Verb> {};

}  // namespace

TEST_P(VerbsUnderFaults, SaySoAndLoseNothing)
{
    const Verb &verb = GetParam();
    std::map<std::string, std::string> whole;
    long calls = 0;
    {
        MendedAppliance appliance;
        define_group();
        verb.prepare(appliance);
        platform().calls_met = 0;
        ASSERT_EQ(appliance.run(verb.words).exit, 0) << appliance.run(verb.words).text;
        calls = platform().calls_met;
        whole = state();
    }
    ASSERT_GT(calls, 0);
    int refused = 0;
    for (const bool from_then_on : {false, true}) {
        for (long n = 1; n <= calls; n += step) {
            MendedAppliance appliance;
            define_group();
            verb.prepare(appliance);
            const std::set<std::string> before = appliance.whole_archives();
            const int open_before = open_descriptors();
            platform().calls_met = 0;
            platform().calls.clear();
            platform().fail_at = n;
            platform().fail_from_then_on = from_then_on;
            const Ran ran = appliance.run(verb.words);
            const std::string at =
                std::string("call ") + std::to_string(n) + (from_then_on ? " and all behind it" : "");
            if (!platform().fault_met) {
                break;  // what is done in a pass or two needs a call less this time
            }
            const std::string met = platform().calls.at(static_cast<std::size_t>(n) - 1);
            platform().fail_at = 0;
            refused += ran.exit != 0;
            if (ran.exit == 0) {
                EXPECT_EQ(difference(whole, state()), "")
                    << at << " (" << met << "): it says that all is done: " << ran.text;
            } else {
                EXPECT_FALSE(ran.text.empty()) << at;
            }
            EXPECT_TRUE(inner_lock_is_free() || ran.exit != 0) << at;
            EXPECT_EQ(platform().open_handles, 0) << at;
            EXPECT_EQ(open_descriptors(), open_before) << at;
            const std::set<std::string> after = appliance.whole_archives();
            for (const std::string &archive : before) {
                EXPECT_TRUE(after.contains(archive)) << at << ": a whole archive was lost";
            }
            if (HasFailure()) {
                return;
            }
        }
    }
    RecordProperty("calls", static_cast<int>(calls));
    RecordProperty("refused", refused);
}

INSTANTIATE_TEST_SUITE_P(Each, VerbsUnderFaults, testing::ValuesIn(verbs),
                         [](const testing::TestParamInfo<Verb> &each) { return std::string(each.param.name); });
