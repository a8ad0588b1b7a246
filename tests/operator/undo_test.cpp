// Undo, over the verbs whose changes it takes back: after it, everything is as it was before; and where that can't be, it
// says why and changes nothing.
#include <gmock/gmock.h>
#include <kesta/kesta.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "archive_places.h"
#include "change_log.h"
#include "generation_folder.h"
#include "mended_appliance.h"
#include "private_root.h"
#include "test_platform.h"

using namespace test;
using testing::HasSubstr;
namespace fs = std::filesystem;

namespace {

constexpr const char *settings = "/etc/app/settings";

class UndoTest : public testing::Test {
protected:
    UndoTest()
    {
        fs::remove_all("/etc/app");
        write_file("/etc/kesta_sys/app/define.xml",
                   "<?xml version=\"1.0\"?>\n<group id=\"app\" operation=\"update\" type=\"files\">"
                   "<setinfo><file path=\"/etc/app\"/></setinfo></group>\n");
        write_file(settings, "first\n");
        write_file("/etc/app/gone", "gone\n");
        done("save app");
        done("accept");
        write_file(settings, "second\n");
    }

    Ran ran(const std::string &line) const
    {
        std::vector<std::string> words{"kestactl"};
        std::istringstream all(line);
        for (std::string word; all >> word;) {
            words.push_back(word);
        }
        return appliance.run_and_tell(words);
    }
    Ran done(const std::string &line) const
    {
        const Ran result = ran(line);
        EXPECT_EQ(result.exit, 0) << line << ": " << result.text;
        return result;
    }
    void refused(const std::string &line, const std::string &why) const
    {
        const auto before = state();
        const Ran result = ran(line);
        EXPECT_EQ(result.exit, 1) << line;
        EXPECT_THAT(result.text, HasSubstr(why)) << line;
        EXPECT_EQ(before, state()) << line;
    }

    // It is said wherever the list is asked for, and nobody overwrites it.
    void expect_the_damage_is_told(const std::string &log) const
    {
        const std::string whole = read_file(log);
        for (const std::string &damaged : {std::string(), whole.substr(0, 1000), std::string("{}"), std::string("[]"),
                                           std::string(R"({"format": 2, "changes": []})"),
                                           std::string(R"({"format": 1, "changes": [{"id": 1}]})")}) {
            write_file(log, damaged);
            for (const char *line : {"undo --yes", "history"}) {
                const Ran told = ran(line);
                EXPECT_EQ(told.exit, 4) << line << " of " << damaged;
                EXPECT_THAT(told.text, HasSubstr("The list of changes is damaged: " + log + " can't be understood"));
                EXPECT_THAT(told.text, HasSubstr("Move it away, and the next change begins a new list."));
            }
        }
        EXPECT_THAT(done("save app").text, HasSubstr("This change is not in the list of changes, and can't be undone"));
        EXPECT_EQ(read_file(log), R"({"format": 1, "changes": [{"id": 1}]})");
    }

    // What the appliance goes by, but for the numbers that were handed out.
    std::map<std::string, std::string> state() const
    {
        std::map<std::string, std::string> all;
        for (std::size_t place = 0; place < place_names.size(); ++place) {
            all[place_names[place]] = appliance.at(place);
        }
        for (const fs::directory_entry &entry : fs::recursive_directory_iterator("/etc/app")) {
            all[entry.path()] =
                entry.is_regular_file() ? read_file(entry.path()) + std::to_string(mode_of(entry.path())) : "";
        }
        const engine::NamesInForce names = engine::names_in_force();
        all["slots"] = names.backup + " " + names.accept;
        all["versions"] = std::to_string(names.backup_version) + " " + std::to_string(names.accept_version) + " " +
                          std::to_string(names.current_version) + " " + std::to_string(names.flash_version);
        return all;
    }

    MendedAppliance appliance;
};

void expect_same(const std::map<std::string, std::string> &one, const std::map<std::string, std::string> &other)
{
    EXPECT_EQ(one.size(), other.size());
    for (const auto &[place, bytes] : one) {
        EXPECT_TRUE(other.contains(place) && other.at(place) == bytes)
            << place << (place == "versions" ? ": " + bytes + ", " + other.at(place) : "");
    }
}

}  // namespace

TEST_F(UndoTest, EachVerbIsTakenBackAndForthAgain)
{
    int round = 0;
    for (const std::string verb : {"save app", "accept", "slot switch", "slot switch", "restore app --from accept",
                                   "version set current 1", "save app", "copy archive flash:accept flash:backup"}) {
        write_file("/etc/app/new/file", verb + std::to_string(++round));  // what a restore leaves alone
        const auto before = state();
        done(verb);
        const auto after = state();
        done("undo --yes");
        expect_same(before, state());
        done("undo --yes");
        expect_same(after, state());
        if (HasFailure()) {
            FAIL() << verb;
        }
    }
    EXPECT_EQ(ran("verify").json.at("subjects").size(), 9U);
}

TEST_F(UndoTest, FilesOfARestoreComeBackAndNewOnesGo)
{
    ASSERT_EQ(chmod(settings, 0600), 0);
    fs::remove("/etc/app/gone");
    const auto before = state();
    done("restore app");
    EXPECT_EQ(read_file(settings), "first\n");
    EXPECT_TRUE(exists("/etc/app/gone"));
    done("undo --yes");
    expect_same(before, state());
    EXPECT_FALSE(exists("/etc/app/gone"));
}

TEST_F(UndoTest, GenerationIsRestoredAndUndone)
{
    const Ran listed = done("history");
    done("save app");
    write_file(settings, "third\n");
    const auto before = state();
    const Ran now = done("history --group app");
    ASSERT_FALSE(now.json.at("generations").empty());
    const Json first = now.json.at("generations").at(0);
    EXPECT_EQ(first.at("result"), "done");
    EXPECT_EQ(first.at("group"), "app");
    const std::string number = std::to_string(first.at("number").get<int>());
    done("restore app --generation " + number);
    EXPECT_EQ(read_file(settings), "first\n");
    done("undo --yes");
    expect_same(before, state());
    EXPECT_EQ(ran("diff app " + number).exit, 1);
    EXPECT_EQ(ran("diff app backup").exit, 1);
    EXPECT_EQ(ran("diff app 999").exit, 4);
}

TEST_F(UndoTest, RefusesWhatCanNotBeUndoneAndSaysWhy)
{
    done("save app --keep 0");
    refused("undo --yes", "not all that it replaced was kept");
    done("nv write wwn 500000E0D0123400");
    refused("undo --yes", "'nv write', can't be undone");
    done("save app");
    (void)kestal_set_version(KESTA_VER_AREA_BACKUP, 0, 77);
    refused("undo --yes", "slots or versions have been changed since");
    write_file(settings, "fourth\n");
    done("save app");
    appliance.put(2, MendedAppliance::archive(5));
    refused("undo --yes", "slot:kesta_backup0 has been changed since");
    const std::string log = std::string(engine::generations_folder) + "/changes.json";
    write_file(log, read_file(log).substr(0, 1000));
    expect_the_damage_is_told(log);
    fs::remove(log);
    done("save app");
    appliance.put(2, MendedAppliance::archive(6));
    ran("restore app --only /etc/nothing");
    refused("undo --yes", "changed since");  // refused before anything was changed: no change
}

// As an undo leaves it that was killed when it had done all, and was not in the list yet.
TEST_F(UndoTest, NeedsTheArchiveOfTheFilesThatTheChangeReplaced)
{
    done("save app");
    write_file(settings, "fourth\n");
    done("restore app");
    const std::string replaced = std::string(engine::generations_folder) + "/" + engine::undo_archive_name;
    const std::string whole = read_file(replaced);
    for (const std::string &other : {whole + "more", whole.substr(0, whole.size() / 2), std::string()}) {
        write_file(replaced, other);
        refused("undo --yes", "the archive of the files that it replaced has been changed since");
    }
    fs::remove(replaced);
    refused("undo --yes", "the archive of the files that it replaced has been changed since");
    write_file(replaced, whole);
    done("undo --yes");
    EXPECT_EQ(read_file(settings), "fourth\n");
}

TEST_F(UndoTest, RefusedSaveIsToldToWhoWatchesAndIsNoChangeToUndo)
{
    done("save app");
    EXPECT_EQ(ran("check").exit, 0);
    ASSERT_EQ(mkfifo("/etc/app/pipe", 0600), 0);
    EXPECT_EQ(ran("save app").exit, 1);
    const Ran checked = ran("check");
    EXPECT_EQ(checked.exit, 2);
    EXPECT_THAT(checked.text, HasSubstr("the last save ended with 'no', not-restorable"));
    fs::remove("/etc/app/pipe");
    done("undo --yes");
    done("save app");
    EXPECT_EQ(ran("check").exit, 0);
}

TEST_F(UndoTest, DropKeepsTheLastWholeCopyOfWhatIsInForce)
{
    done("save app");
    const Json kept = done("history --oneline").json.at("generations");
    ASSERT_FALSE(kept.empty());
    const std::string number = std::to_string(kept.at(0).at("number").get<int>());
    EXPECT_EQ(ran("history drop " + number).exit, 2) << "nobody is there to answer";
    appliance.damage(1, Damage::flipped);
    appliance.damage(3, Damage::flipped);
    refused("history drop " + number + " --yes", "no place in force has a whole copy");
    appliance.put(1, MendedAppliance::archive(3));
}
