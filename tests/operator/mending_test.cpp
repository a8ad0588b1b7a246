// Any damage, and an operator who does what verify says: it ends in agreement or in words of what is left, and no whole
// archive is lost on the way.
#include <gmock/gmock.h>
#include <limits.h>

#include <filesystem>
#include <random>

#include "archive_evidence.h"
#include "archive_places.h"
#include "generation_folder.h"
#include "generations.h"
#include "kesta/kesta.h"
#include "mended_appliance.h"
#include "overlong_mirror.h"
#include "private_root.h"
#include "tar_samples.h"
#include "test_platform.h"

using namespace test;

namespace {

#ifdef KESTA_FEWER_STATES
constexpr int random_states = 40;
constexpr std::size_t pair_step = 13;
constexpr int damage_step = 6;
#else
constexpr int random_states = 400;
constexpr std::size_t pair_step = 1;
constexpr int damage_step = 2;
#endif

constexpr const char *slot0 = "kesta_backup0";
constexpr const char *slot1 = "kesta_backup1";
constexpr const char *subjects[] = {"slots",    "mirror", "backup",    "accepted",   "versions",
                                    "identity", "locks",  "leftovers", "generations"};

Json subject(const Ran &verified, const std::string &name)
{
    for (const Json &row : verified.json.at("subjects")) {
        if (row.at("subject") == name) {
            return row;
        }
    }
    ADD_FAILURE() << "no subject " << name;
    return {};
}

void expect_followed(MendedAppliance &appliance, const std::string &state)
{
    const std::string wrong = appliance.follow();
    EXPECT_EQ(wrong, "") << state << "\n" << appliance.steps();
}

// Says what it makes, and makes the same again for --fix.
using Make = std::function<std::string(MendedAppliance &)>;

// Whether it came to agreement.
bool expect_mended(const Make &make, int controller = 0, bool recorded = true)
{
    bool agrees = false;
    {
        MendedAppliance appliance(controller, recorded);
        const std::string state = make(appliance) + (recorded ? "" : ", nothing recorded");
        expect_followed(appliance, state);
        agrees = appliance.agrees();
    }
    MendedAppliance appliance(controller, recorded);
    const std::string state = make(appliance);
    const std::string wrong = appliance.fix();
    EXPECT_EQ(wrong, "") << "--fix of " << state << "\n" << appliance.steps();
    EXPECT_EQ(appliance.agrees(), agrees) << "--fix of " << state << "\n" << appliance.steps();
    return agrees;
}

std::string damage(MendedAppliance &appliance, std::size_t place, int how)
{
    appliance.damage(place, static_cast<Damage>(how));
    return std::string(place_names[place]) + " " + damage_names[static_cast<std::size_t>(how)] + "; ";
}

}  // namespace

TEST(Mending, WhatIsInOrderAgreesInAllSubjects)
{
    for (const bool recorded : {true, false}) {
        const MendedAppliance appliance(0, recorded);
        const Ran verified = appliance.verify();
        EXPECT_EQ(verified.exit, 0) << verified.text;
        ASSERT_EQ(verified.json.at("subjects").size(), std::size(subjects));
        for (std::size_t i = 0; i < std::size(subjects); ++i) {
            const Json &row = verified.json.at("subjects")[i];
            EXPECT_EQ(row.at("subject"), subjects[i]);
            EXPECT_EQ(row.at("state"), row.at("subject") == "generations" ? "absent" : "agree") << verified.text;
            EXPECT_TRUE(row.at("mend").is_array() && row.at("mend").empty()) << row.dump();
        }
        const Json backup = subject(verified, "backup");
        EXPECT_EQ(backup.at("places")[0].at("place"), "flash");
        EXPECT_EQ(backup.at("places")[1].at("place"), "slot:kesta_backup0");
        EXPECT_EQ(backup.at("places")[0].at("version"), 9);
        EXPECT_EQ(backup.at("places")[0].at("sha256").get<std::string>().size(), 64u);
        EXPECT_TRUE(backup.at("places")[0].contains("modified"));
        EXPECT_EQ(subject(verified, "accepted").at("places")[0].at("version"), 3);
    }
}

TEST(Mending, OneDamagedPlaceIsMendedFromTheOther)
{
    for (std::size_t place = 0; place < place_names.size(); ++place) {
        for (int how = 1; how < static_cast<int>(damage_names.size()); ++how) {
            MendedAppliance appliance;
            const std::string state = damage(appliance, place, how);
            const Ran before = appliance.verify();
            const bool unreadable = static_cast<Damage>(how) == Damage::unreadable;
            EXPECT_EQ(before.exit, unreadable ? 4 : 1) << state << before.text;
            expect_followed(appliance, state);
            EXPECT_EQ(appliance.agrees(), !unreadable) << state << appliance.verify().text;
        }
    }
}

TEST(Mending, UnreadableIsNeverAPassAndNeverWritten)
{
    for (std::size_t place = 0; place < place_names.size(); ++place) {
        MendedAppliance appliance;
        appliance.damage(place, Damage::unreadable);
        const Ran verified = appliance.verify();
        const Json row = subject(verified, place % 2 == 0 ? "backup" : "accepted");
        EXPECT_EQ(row.at("state"), "unreadable");
        EXPECT_TRUE(row.at("mend").is_null());
        EXPECT_EQ(verified.exit, 4);
        const Ran copied =
            appliance.run({"kestactl", "copy", "archive", place_names[(place + 2) % 4], place_names[place]});
        EXPECT_NE(copied.exit, 0);
    }
}

TEST(Mending, AllPairsOfDamage)
{
    std::size_t number = 0;
    std::size_t walked = 0;
    std::size_t agreed = 0;
    for (std::size_t one = 0; one < place_names.size(); ++one) {
        for (std::size_t other = one + 1; other < place_names.size(); ++other) {
            for (int a = 1; a < 8; ++a) {
                for (int b = 1; b < 8; ++b) {
                    if (++number % pair_step == 0) {
                        ++walked;
                        agreed += expect_mended(
                            [=](MendedAppliance &appliance) {
                                return damage(appliance, one, a) + damage(appliance, other, b);
                            },
                            0, number % 3 != 0);
                    }
                }
            }
        }
    }
    EXPECT_GT(agreed * 5, walked * 2) << "what is unreadable, or damaged in both places, is only told of";
    RecordProperty("walked", static_cast<int>(walked));
    RecordProperty("agreed", static_cast<int>(agreed));
}

TEST(Mending, NamesOfTheSlotsAreProvedByTheArchives)
{
    const std::vector<std::pair<std::string, std::string>> names{{slot0, slot1},  {slot1, slot0}, {slot0, slot0},
                                                                 {slot1, slot1},  {"", ""},       {"garbage", slot1},
                                                                 {slot0, "\x01?"}};
    for (const auto &memory : names) {
        for (const auto &disk : names) {
            for (const bool recorded : {true, false}) {
                MendedAppliance appliance(0, recorded);
                appliance.name_in_memory(memory.first, memory.second);
                appliance.name_on_disk(disk.first, disk.second);
                const std::string state =
                    "names " + memory.first + " " + memory.second + ", on disk " + disk.first + " " + disk.second;
                expect_followed(appliance, state);
                EXPECT_TRUE(appliance.agrees()) << state << appliance.steps() << appliance.verify().text;
                EXPECT_EQ(appliance.at(2), MendedAppliance::archive(9));
                EXPECT_EQ(appliance.at(3), MendedAppliance::archive(3));
            }
        }
    }
}

TEST(Mending, SlotsWithTheSameArchiveAreNamedAsTheSideThatNamesThem)
{
    MendedAppliance appliance;
    appliance.name_in_memory("", "");
    appliance.name_on_disk(slot1, slot0);
    for (std::size_t place = 0; place < place_names.size(); ++place) {
        appliance.put(place, MendedAppliance::archive(9));
    }
    appliance.run({"kestactl", "version", "set", "accept", "0"});
    expect_followed(appliance, "one archive everywhere");
    EXPECT_TRUE(appliance.agrees()) << appliance.steps() << appliance.verify().text;
    EXPECT_THAT(subject(appliance.verify(), "slots").at("text").get<std::string>(),
                testing::HasSubstr("accept kesta_backup0"));
}

TEST(Mending, NamesThatNothingProvesAreNotGuessed)
{
    MendedAppliance appliance;
    appliance.name_in_memory("", "");
    appliance.name_on_disk("", "");
    for (std::size_t place = 0; place < place_names.size(); ++place) {
        appliance.put(place, whole_archive("nobody knows " + std::to_string(place)));
    }
    const Json row = subject(appliance.verify(), "slots");
    EXPECT_EQ(row.at("state"), "differs");
    EXPECT_TRUE(row.at("mend").is_null());
    EXPECT_THAT(row.at("text").get<std::string>(), testing::HasSubstr("can't be told"));
}

TEST(Mending, EachMirroredItemOnEitherSide)
{
    const std::vector<std::pair<std::string, std::size_t>> items{{"kesta_sysback", 32},  {"kesta_sysacpt", 32},
                                                                 {"kesta_verid", 4},     {"kesta_verback", 4},
                                                                 {"kesta_ver0", 4},      {"kesta_ver1", 4},
                                                                 {"kesta_ver2", 4},      {"kesta_ver3", 4},
                                                                 {"kesta_reboot", 4},    {"kesta_wwn", 16},
                                                                 {"kesta_serialno", 16}, {"kesta_guid", 20}};
    for (const auto &[item, size] : items) {
        for (const std::string &bytes : {std::string(), std::string(size, '\0'), std::string(size, '\x01'),
                                         std::string("\x07\0\0\0", 4) + std::string(size - 4, '\0')}) {
            expect_mended([&, name = item](MendedAppliance &) {
                if (bytes.empty()) {
                    platform().sysback.erase(name);
                } else {
                    platform().sysback[name] = {bytes};
                }
                return name + " on disk";
            });
        }
    }
    for (const char *item : {"numbering-version", "backup-version", "version-cnt0", "version-cnt2"}) {
        for (const char *value : {"0", "7", "11", "2147483647"}) {
            expect_mended([&](MendedAppliance &appliance) {
                appliance.run({"kestactl", "nv", "write", item, value, "--memory-only"});
                return std::string(item) + " " + value + " in memory";
            });
        }
    }
}

// What a repair of the library leaves has the whole field, what a repair by hand leaves has the value: both are the same.
TEST(Mending, GuidOnTheDiskMayHaveEitherLengthAndIsReadByWhoReadsItsValue)
{
    const std::string value = "\x01\x23\x45\x67\x89\xab\xcd\xef\x01\x23\x45\x67\x89\xab\xcd\xef";
    std::array<char, KESTA_GUID_BYTES> guid{};
    int disk = 1;
    const auto reads_it = [&] {
        kestal_rw_set_boot_mode(KESTA_RWMODE_BOTH);
        return kestal_non_volatile_rw_func(KESTA_BLOCK_GUID, KESTA_BLOCK_READ, guid.data(), guid.size(), &disk) ==
                   KESTA_OK &&
               disk == KESTA_OK && std::string(guid.data(), guid.size()) == value;
    };
    for (const std::size_t length : {16U, 20U}) {
        MendedAppliance appliance;
        std::string field = value + std::string(4, '\0');
        (void)kestal_non_volatile_rw_memory(KESTA_BLOCK_GUID, KESTA_BLOCK_WRITE, field.data(), KESTA_IDENTITY_SIZE);
        platform().sysback["kesta_guid"] = {field.substr(0, length)};
        EXPECT_EQ(subject(appliance.verify(), "mirror").at("state"), "agree") << length;
        EXPECT_EQ(engine::overlong_mirrors().size(), length == 20 ? 1U : 0U);
        for (const engine::Block *const block : engine::overlong_mirrors()) {
            engine::shorten_mirror(*block);
        }
        EXPECT_TRUE(reads_it()) << length;
    }
    for (const bool missing : {true, false}) {
        MendedAppliance appliance;
        std::string field = value + std::string(4, '\0');
        (void)kestal_non_volatile_rw_memory(KESTA_BLOCK_GUID, KESTA_BLOCK_WRITE, field.data(), KESTA_IDENTITY_SIZE);
        if (missing) {
            platform().sysback.erase("kesta_guid");
        } else {
            platform().sysback["kesta_guid"] = {std::string(20, '\x07')};
        }
        EXPECT_EQ(appliance.run({"kestactl", "repair", "--from", "memory"}).exit, 0);
        EXPECT_EQ(platform().sysback["kesta_guid"].bytes, value);
        EXPECT_TRUE(reads_it());
    }
}

TEST(Mending, VersionsThatWrappedOrWereLost)
{
    for (const char *area : {"numbering", "backup", "accept", "current", "flash"}) {
        for (const char *value : {"0", "1", "8", "10", "2147483647"}) {
            for (int how = 0; how < 8; how += damage_step) {
                expect_mended([&](MendedAppliance &appliance) {
                    appliance.run({"kestactl", "version", "set", area, value});
                    return std::string(area) + " " + value + "; " +
                           damage(appliance, static_cast<std::size_t>(how) / 2, how);
                });
            }
        }
    }
}

TEST(Mending, LeftoversOfKilledCommands)
{
    const std::vector<std::string> paths{engine::unfinished_archive, "/opt/kesta_sys/bakup/.restore.new",
                                         "/opt/kesta_sys/bakup/backup.tar.Z.new",
                                         "/opt/kesta_sys/bakup/accept.tar.Z.new", engine::unfinished_flash_copy};
    const std::string unique = whole_archive("saved, and never published");
    for (const std::string &path : paths) {
        for (const std::string &bytes : {unique, unique.substr(0, 50), MendedAppliance::archive(9), std::string()}) {
            for (const Damage how : {Damage::none, Damage::flipped, Damage::absent}) {
                MendedAppliance appliance;
                appliance.damage(0, how);
                write_file(path, bytes);
                expect_followed(appliance, path);
                EXPECT_TRUE(appliance.agrees()) << path << appliance.verify().text;
                EXPECT_FALSE(exists(path));
            }
        }
    }
}

TEST(Mending, UnfinishedRestoreWaitsForItsArchive)
{
    MendedAppliance appliance;
    write_file(engine::unfinished_restore_note,
               R"({"group":"app","from":"backup","only":"","on_reboot":false,"replaced":[]})");
    const std::vector<std::string> complete{"kestactl", "restore", "app", "--from", "backup"};
    EXPECT_EQ(subject(appliance.verify(), "leftovers").at("mend"), Json::Array({complete}));
    appliance.damage(0, Damage::flipped);
    appliance.damage(2, Damage::flipped);
    EXPECT_TRUE(subject(appliance.verify(), "leftovers").at("mend").is_null());
    write_file(engine::unfinished_restore_note, "no note");
    const Ran verified = appliance.verify();
    EXPECT_TRUE(subject(verified, "leftovers").at("mend").is_null());
    EXPECT_EQ(subject(verified, "leftovers").at("state"), "unfinished");
}

TEST(Mending, ControllerThatDidNotSaveGetsWhatIsInForce)
{
    for (const bool recorded : {true, false}) {
        MendedAppliance appliance(1, recorded);
        appliance.run({"kestactl", "version", "set", "flash", "8"});
        appliance.put(0, MendedAppliance::archive(8));
        EXPECT_EQ(subject(appliance.verify(), "backup").at("right"), "slot:kesta_backup0");
        EXPECT_EQ(subject(appliance.verify(), "backup").at("places")[0].at("version"), 8);
        expect_followed(appliance, "older flash");
        EXPECT_EQ(appliance.at(0), MendedAppliance::archive(9));
        EXPECT_TRUE(appliance.whole_archives().contains(MendedAppliance::archive(8))) << "kept";
    }
}

TEST(Mending, NothingPassesForAnotherVersionByItsNumber)
{
    MendedAppliance appliance(0, false);
    appliance.put(0, MendedAppliance::archive(8));
    appliance.run({"kestactl", "version", "set", "flash", "8"});
    appliance.damage(2, Damage::flipped);
    EXPECT_TRUE(subject(appliance.verify(), "versions").at("mend").is_null());
    expect_followed(appliance, "only the number on flash tells that it is version 8");
    EXPECT_NE(appliance.at(2), MendedAppliance::archive(8));
    EXPECT_TRUE(subject(appliance.verify(), "backup").at("right").is_null());
}

TEST(Mending, MendingDropsNoGenerationAndNeverItsSource)
{
    for (const bool fails : {false, true}) {
        MendedAppliance appliance;
        write_file("/etc/kesta/archives.conf", "generations = 1\n");
        for (const int version : {8, 10, 9}) {
            appliance.run({"kestactl", "copy", "archive", "flash:backup", "slot:kesta_backup0"});
            appliance.put(0, MendedAppliance::archive(version));
        }
        appliance.put(0, MendedAppliance::archive(10));
        const std::set<std::string> before = appliance.whole_archives();
        const Ran kept = appliance.run({"kestactl", "copy", "archive", "flash:backup", "slot:kesta_backup0"});
        ASSERT_EQ(kept.exit, 0) << kept.text;
        const std::string sum = engine::evidence_of_bytes(MendedAppliance::archive(9)).sha256;
        if (fails) {
            platform().fail_kind("sb_write", 0, 1);
        }
        const Ran back = appliance.run({"kestactl", "copy", "archive", "generation:" + sum, "slot:kesta_backup0"});
        EXPECT_EQ(back.exit, fails ? 4 : 0) << back.text;
        for (const std::string &archive : before) {
            EXPECT_TRUE(appliance.whole_archives().contains(archive));
        }
    }
}

TEST(Mending, LeftoverBeyondTheLimitsIsKeptAndTakenAway)
{
    MendedAppliance appliance;
    const std::string large = whole_archive(std::string(20000, 'x'));
    write_file(engine::unfinished_archive, large);
    write_file("/etc/kesta/archives.conf", "archive_bytes = 8000\n");
    ASSERT_FALSE(subject(appliance.verify(), "leftovers").at("mend").is_null());
    expect_followed(appliance, "a leftover beyond the limits");
    EXPECT_FALSE(exists(engine::unfinished_archive));
    write_file("/etc/kesta/archives.conf", "");
    EXPECT_TRUE(appliance.whole_archives().contains(large)) << "kept, since it may be whole";
}

// Nobody tested it to its end, so nobody says that it is damaged, and nothing takes its place.
TEST(Mending, ArchiveBeyondTheLimitsIsUnreadableAndNeverWritten)
{
    for (std::size_t place = 0; place < place_names.size(); ++place) {
        MendedAppliance appliance;
        appliance.put(place, whole_archive(std::string(20000, 'x')));
        write_file("/etc/kesta/archives.conf", "archive_bytes = 8000\n");
        const std::string large = appliance.at(place);
        const Ran verified = appliance.verify();
        EXPECT_EQ(verified.exit, 4) << verified.text;
        const Json row = subject(verified, place % 2 == 0 ? "backup" : "accepted");
        EXPECT_EQ(row.at("state"), "unreadable");
        EXPECT_TRUE(row.at("mend").is_null());
        EXPECT_THAT(row.at("places")[place / 2].at("reason").get<std::string>(),
                    testing::HasSubstr("more than 8000 bytes"));
        expect_followed(appliance, "beyond the limits");
        EXPECT_EQ(appliance.at(place), large);
        write_file("/etc/kesta/archives.conf", "");
        expect_followed(appliance, "within the limits again");
        EXPECT_NE(appliance.verify().exit, 4);
    }
}

TEST(Mending, MirrorIsMendedBesideAnArchiveThatCanNotBeRead)
{
    for (std::size_t place = 0; place < place_names.size(); ++place) {
        for (const char *item : {"kesta_sysback", "kesta_sysacpt", "kesta_verid", "kesta_verback", "kesta_ver0"}) {
            for (const bool missing : {true, false}) {
                MendedAppliance appliance;
                appliance.damage(place, Damage::unreadable);
                if (missing) {
                    platform().sysback.erase(item);
                } else {
                    platform().sysback[item] = {std::string("\x07\0\0\0", 4)};
                }
                const std::string state =
                    std::string(item) + (missing ? " missing, " : " differs, ") + place_names[place] + " can't be read";
                const Json before = subject(appliance.verify(), "mirror");
                expect_followed(appliance, state);
                const Ran after = appliance.verify();
                EXPECT_EQ(after.exit, 4) << state << after.text;
                const Json mirror = subject(after, "mirror");
                EXPECT_NE(before.at("state"), "agree") << state;
                EXPECT_TRUE(mirror.at("state") == "agree" || mirror.at("mend").is_null()) << state << mirror.dump();
                EXPECT_EQ(subject(after, place % 2 == 0 ? "backup" : "accepted").at("state"), "unreadable") << state;
            }
        }
    }
}

TEST(Mending, RecordOfSavedArchivesThatCanNotBeReadIsTold)
{
    const std::string record = std::string(engine::generations_folder) + "/saved.json";
    {
        MendedAppliance appliance;
        write_file(record, read_file(record).substr(0, 100));
        const Ran verified = appliance.verify();
        EXPECT_EQ(verified.exit, 1) << verified.text;
        EXPECT_EQ(subject(verified, "generations").at("state"), "damaged");
        EXPECT_EQ(subject(verified, "generations").at("places")[0].at("place"), record);
        EXPECT_THAT(subject(verified, "generations").at("text").get<std::string>(),
                    testing::HasSubstr("kestactl save"));
        write_file("/tmp/noted", MendedAppliance::archive(9));
        engine::note_saved("/tmp/noted", "app", 9, {});
        EXPECT_EQ(subject(appliance.verify(), "generations").at("state"), "absent") << "written anew";
    }
    MendedAppliance appliance;
    std::filesystem::remove(record);
    std::filesystem::create_directory(record);
    const Ran verified = appliance.verify();
    EXPECT_EQ(verified.exit, 4) << verified.text;
    EXPECT_EQ(subject(verified, "generations").at("state"), "unreadable");
}

TEST(Mending, WhatCanNotBeReadIsNoAgreementAndNoFreeLock)
{
    MendedAppliance appliance;
    appliance.damage(1, Damage::flipped);
    platform().fail_kind("nv_read");
    const Ran verified = appliance.verify();
    EXPECT_EQ(verified.exit, 4);
    EXPECT_EQ(subject(verified, "identity").at("state"), "unreadable");
    EXPECT_EQ(subject(verified, "locks").at("state"), "unreadable");
    EXPECT_THAT(subject(verified, "accepted").at("text").get<std::string>(),
                testing::Not(testing::HasSubstr("kestactl save")))
        << "the slot may have what is in force";
    const std::vector<std::string> copy{"kestactl", "copy", "archive", "slot:kesta_backup1", "flash:accept"};
    const Ran refused = appliance.run(copy);
    EXPECT_EQ(refused.exit, 4);
    EXPECT_NE(appliance.at(1), MendedAppliance::archive(3)) << "another controller may hold a lock";
    std::vector<std::string> alone = copy;
    for (const char *word : {"--ignore-lock", "CNT1", "--ignore-lock", "CNT2", "--ignore-lock", "CNT3"}) {
        alone.push_back(word);
    }
    EXPECT_THAT(refused.text, testing::HasSubstr("--ignore-lock CNT1 --ignore-lock CNT2 --ignore-lock CNT3"));
    EXPECT_EQ(appliance.run(alone).exit, 0);
    EXPECT_EQ(appliance.at(1), MendedAppliance::archive(3));
}

TEST(Mending, WholeOneOfUnknownVersionIsNotSaidToBeAnother)
{
    MendedAppliance appliance(1, false);
    appliance.damage(3, Damage::flipped);
    const Json row = subject(appliance.verify(), "accepted");
    EXPECT_TRUE(row.at("mend").is_null());
    EXPECT_TRUE(row.at("right").is_null());
    EXPECT_THAT(row.at("text").get<std::string>(),
                testing::HasSubstr("If it is: kestactl copy archive flash:accept slot:kesta_backup1."));
    EXPECT_EQ(appliance.run({"kestactl", "copy", "archive", "flash:accept", "slot:kesta_backup1"}).exit, 0);
    EXPECT_EQ(appliance.verify().exit, 0);
}

TEST(Mending, FlashOfUnknownVersionIsNotCopiedOverTheSlot)
{
    MendedAppliance appliance(1, false);
    appliance.put(0, MendedAppliance::archive(8));
    appliance.run({"kestactl", "version", "set", "flash", "0"});
    const Ran refused = appliance.run({"kestactl", "copy", "cntbackup2backup"});
    EXPECT_EQ(refused.exit, 1) << refused.text;
    EXPECT_EQ(appliance.at(2), MendedAppliance::archive(9));
    EXPECT_EQ(appliance.run({"kestactl", "copy", "cntbackup2backup", "--force"}).exit, 0);
}

TEST(Mending, SwitchThatLeavesTheDiskOutIsNoSwitch)
{
    MendedAppliance appliance;
    platform().fail_kind("sb_open");
    EXPECT_EQ(appliance.run({"kestactl", "slot", "switch"}).exit, 4);
    platform().kind_faults.erase("sb_open");
    expect_followed(appliance, "half a switch");
    EXPECT_TRUE(appliance.agrees());
}

TEST(Mending, NumberThatLeavesTheDiskOutIsTold)
{
    MendedAppliance appliance;
    platform().fail_kind("sb_open");
    const Ran handed_out = appliance.run({"kestactl", "version", "next"});
    EXPECT_EQ(handed_out.exit, 4);
    EXPECT_THAT(handed_out.text, testing::HasSubstr("Number 10 was not written to every place"));
    platform().kind_faults.erase("sb_open");
    EXPECT_EQ(subject(appliance.verify(), "mirror").at("right"), "memory");
    expect_followed(appliance, "half a number");
    EXPECT_TRUE(appliance.agrees());
    EXPECT_EQ(appliance.run({"kestactl", "version", "next"}).text, "11\n");
}

TEST(Mending, VersionFileThatCanNotBeReadIsNotSetAnew)
{
    MendedAppliance appliance;
    std::filesystem::remove("/etc/kesta_sys/version");
    std::filesystem::create_directory("/etc/kesta_sys/version");
    const Ran verified = appliance.verify();
    EXPECT_EQ(verified.exit, 4) << verified.text;
    EXPECT_EQ(subject(verified, "versions").at("state"), "unreadable");
    EXPECT_TRUE(subject(verified, "versions").at("mend").is_null());
    std::filesystem::remove("/etc/kesta_sys/version");
    write_file("/etc/kesta_sys/version", "garbage");
    expect_followed(appliance, "a version file that is no number");
    EXPECT_TRUE(appliance.agrees()) << appliance.verify().text;
}

TEST(Mending, LiveLockElsewhereIsHonoured)
{
    for (std::size_t place = 0; place < place_names.size(); ++place) {
        MendedAppliance appliance;
        appliance.damage(place, Damage::flipped);
        appliance.lock_elsewhere();
        const std::string damaged = appliance.at(place);
        expect_followed(appliance, place_names[place]);
        EXPECT_EQ(appliance.at(place), damaged) << "not under somebody's hands";
        EXPECT_EQ(appliance.run({"kestactl", "verify", "--fix", "--yes"}).exit, 3);
        EXPECT_EQ(appliance.run({"kestactl", "verify", "--fix", "--yes", "--ignore-lock", "CNT1"}).exit, 1)
            << "all but the lock is in order";
        EXPECT_NE(appliance.at(place), damaged);
    }
}

TEST(Mending, AnyCombination)
{
    std::mt19937 random(20261121);
    const auto below = [&random](int limit) {
        return static_cast<int>(random() % static_cast<unsigned>(limit));
    };
    const std::vector<std::string> names{slot0, slot1, "", "garbage", slot0, slot1};
    int agreed = 0;
    for (int i = 0; i < random_states; ++i) {
        std::array<int, 16> dice{};
        for (int &die : dice) {
            die = below(1 << 20);
        }
        const Make make = [&](MendedAppliance &appliance) {
            std::string state = "state " + std::to_string(i) + ": ";
            for (std::size_t place = 0; place < place_names.size(); ++place) {
                state += damage(appliance, place, dice[place] % 16 < 8 ? dice[place] % 8 : 0);
            }
            const auto name = [&](std::size_t die) {
                return names[static_cast<std::size_t>(dice[die]) % names.size()];
            };
            if (dice[4] % 3 == 0) {
                appliance.name_in_memory(name(5), name(6));
                state += "names in memory " + name(5) + " " + name(6) + "; ";
            }
            if (dice[4] % 5 == 0) {
                appliance.name_on_disk(name(7), name(8));
                state += "names on disk " + name(7) + " " + name(8) + "; ";
            }
            if (dice[9] % 4 == 0) {
                const char *const area = dice[9] % 8 == 0 ? "backup" : "flash";
                const std::string version = std::to_string(dice[10] % 2 == 0 ? 0 : 8 + dice[10] % 3);
                appliance.run({"kestactl", "version", "set", area, version});
                state += std::string(area) + " version " + version + "; ";
            }
            if (dice[11] % 4 == 0) {
                write_file(dice[11] % 8 == 0 ? engine::unfinished_archive : engine::unfinished_flash_copy,
                           whole_archive("left"));
                state += "a leftover; ";
            }
            if (dice[15] % 4 == 0) {  // a controller that did not save what is in force
                appliance.run({"kestactl", "version", "set", "current", "8"});
                appliance.run({"kestactl", "version", "set", "flash", "8"});
                appliance.put(0, MendedAppliance::archive(8));
                appliance.put(1, MendedAppliance::archive(2));
                state += "another controller's flash; ";
            }
            if (dice[12] % 6 == 0) {
                appliance.lock_elsewhere();
                state += "a lock elsewhere; ";
            }
            return state;
        };
        agreed += expect_mended(make, dice[13] % 4 == 0 ? 1 : 0, dice[14] % 3 != 0);
    }
    RecordProperty("agreed", agreed);
}
