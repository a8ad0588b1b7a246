// The engine's steps of a save, an accept and a restore, without the command line: cut short behind any of them, and
// where a place fails.
#include <gmock/gmock.h>
#include <kesta/kesta.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

#include "appliance_state.h"
#include "archive_places.h"
#include "environment_archive.h"
#include "failure.h"
#include "group_definition.h"
#include "mended_appliance.h"
#include "private_root.h"
#include "restore.h"
#include "saved_environment.h"
#include "test_platform.h"
#include "unfinished_restore.h"
#include "whole_file.h"

using namespace engine;
using namespace test;
using testing::HasSubstr;
namespace fs = std::filesystem;

namespace {

constexpr const char *settings = "/etc/app/settings";
constexpr int saved_version = 10;
constexpr std::size_t flash_place = 0;
constexpr std::size_t slot_place = 2;

void nothing_asked() {}

class EnvironmentSteps : public testing::Test {
protected:
    EnvironmentSteps()
    {
        fs::remove_all("/etc/app");
        write_file("/etc/kesta_sys/app/define.xml",
                   "<?xml version=\"1.0\"?>\n<group id=\"app\" operation=\"update\" type=\"files\">"
                   "<setinfo><file path=\"/etc/app\"/></setinfo></group>\n");
        write_file(settings, "saved\n");
        write_file("/etc/app/other", "saved too\n");
        learn_own_number();
    }

    static void make_aside() { make_archive(*read_definition("app"), unfinished_archive, nothing_asked); }
    static void save()
    {
        make_aside();
        publish_file(unfinished_archive, flash_backup);
        store_in_slot(KESTA_SLOT0);
        record_saved_version(saved_version);
    }
    static void expect_failure(const std::function<void()> &step, const std::string &code)
    {
        try {
            step();
            ADD_FAILURE() << "it is to end with " << code;
        } catch (const Failure &failure) {
            EXPECT_EQ(failure.code(), code) << failure.what();
        }
    }

    // Each file, also what is hidden beside one.
    static std::string files()
    {
        std::string all;
        for (const char *path : {settings, "/etc/app/other"}) {
            all += read_file(path);
        }
        const auto count = std::distance(fs::directory_iterator("/etc/app"), fs::directory_iterator());
        return all + std::to_string(count) + " files\n";
    }

    MendedAppliance appliance;
};

using Steps = std::vector<std::function<void()>>;

Steps steps_of(const std::shared_ptr<Restore> &restore, KeepReport &report)
{
    return {[restore, &report] { put_slot_to_flash(*restore, {}, report, nothing_asked); },
            [restore, &report] { put_beside(*restore, {}, report, nothing_asked); },
            [restore] { put_in_place(*restore); },
            [restore] { apply_definition(*restore); },
            [restore] { EXPECT_EQ(record_versions(*restore), saved_version); },
            [restore] {
                end_restore(*restore);
            }};
}

}  // namespace

TEST_F(EnvironmentSteps, RestoreCutShortBehindAnyOneIsCompletedByTheSameOnceMore)
{
    save();
    KeepReport report;
    const std::size_t all = steps_of(nullptr, report).size();
    for (std::size_t done = 0; done <= all; ++done) {
        write_file(settings, "changed\n");
        fs::remove("/etc/app/other");
        const std::shared_ptr<Restore> cut = prepare_restore({"app"}, true, nothing_asked);
        const Steps steps = steps_of(cut, report);
        for (std::size_t i = 0; i < done; ++i) {
            steps[i]();
        }
        const bool is_noted = done >= 2 && done < all;
        EXPECT_EQ(unfinished_restore().has_value(), is_noted) << done;
        EXPECT_EQ(read_file(settings), done < 3 ? "changed\n" : "saved\n") << done;
        const std::shared_ptr<Restore> again = prepare_restore({"app"}, true, nothing_asked);
        for (const auto &step : steps_of(again, report)) {
            step();
        }
        EXPECT_EQ(files(), "saved\nsaved too\n2 files\n") << done;
        EXPECT_FALSE(unfinished_restore()) << done;
    }
}

TEST_F(EnvironmentSteps, AnUnfinishedRestoreIsInTheWayOfAnotherOne)
{
    save();
    write_file(settings, "changed\n");
    KeepReport report;
    const std::shared_ptr<Restore> cut = prepare_restore({"app"}, true, nothing_asked);
    put_beside(*cut, {}, report, nothing_asked);
    RestoreRequest part{"app"};
    part.only = settings;
    expect_failure([&part] { (void)prepare_restore(part, true, nothing_asked); }, "restore-unfinished");
}

TEST_F(EnvironmentSteps, WhoIsAskedToStopStopsBeforeAFileInUseHasChanged)
{
    save();
    write_file(settings, "changed\n");
    struct Asked {};
    EXPECT_THROW((void)prepare_restore({"app"}, true, [] { throw Asked(); }), Asked);
    bool is_asked = false;
    const auto look = [&is_asked] {
        if (is_asked) {
            throw Failure(Exit::no, "interrupted", "Interrupted.", "Run it again.");
        }
    };
    const std::shared_ptr<Restore> restore = prepare_restore({"app"}, true, look);
    is_asked = true;
    KeepReport report;
    expect_failure([&] { put_beside(*restore, {}, report, look); }, "interrupted");
    EXPECT_EQ(files(), "changed\nsaved too\n2 files\n");
    EXPECT_FALSE(unfinished_restore());
}

TEST_F(EnvironmentSteps, RebootIsAskedForByTheDefinitionOrByWhoRestores)
{
    save();
    RestoreRequest request{"app"};
    EXPECT_FALSE(needs_reboot(*prepare_restore(request, false, nothing_asked)));
    request.on_reboot = true;
    const std::shared_ptr<Restore> restore = prepare_restore(request, false, nothing_asked);
    EXPECT_TRUE(needs_reboot(*restore));
    EXPECT_EQ(record_versions(*restore), saved_version);
    EXPECT_EQ(kestal_read_version(KESTA_VER_AREA_REBOOT, 0, KESTA_VERSION_BY_MODE), saved_version);
}

TEST_F(EnvironmentSteps, SaveThatTheSlotDoesNotTakeIsWholeOnFlash)
{
    make_aside();
    const std::string made = read_file(unfinished_archive);
    publish_file(unfinished_archive, flash_backup);
    platform().fail_kind("sb_write", 0, 1);
    expect_failure([] { store_in_slot(KESTA_SLOT0); }, "slot-failed");
    EXPECT_EQ(appliance.at(flash_place), made);
    store_in_slot(KESTA_SLOT0);
    EXPECT_EQ(appliance.at(slot_place), made);
}

TEST_F(EnvironmentSteps, SlotThatReadsBackOtherwiseIsNoSave)
{
    make_aside();
    publish_file(unfinished_archive, flash_backup);
    platform().before_call = [this](const std::string &call) {
        if (call.rfind("sb_open " KESTA_SLOT0 " r", 0) == 0) {
            appliance.put(slot_place, MendedAppliance::archive(1));
        }
    };
    expect_failure([] { store_in_slot(KESTA_SLOT0); }, "slot-differs");
}

TEST_F(EnvironmentSteps, MirrorThatLacksItemsIsCompletedAndOneThatNamesOtherSlotsIsNot)
{
    EXPECT_FALSE(mirror_lacks_items());
    platform().sysback.erase("kesta_verid");
    EXPECT_TRUE(mirror_lacks_items());
    complete_mirror();
    EXPECT_FALSE(mirror_lacks_items());
    appliance.name_on_disk(KESTA_SLOT1, KESTA_SLOT0);
    expect_failure([] { (void)mirror_lacks_items(); }, "places-differ");
}

TEST_F(EnvironmentSteps, OnlyAWholeArchiveBecomesTheAcceptedOne)
{
    save();
    EXPECT_EQ(require_acceptable(nothing_asked).size(), 64U);
    appliance.damage(flash_place, Damage::cut);
    expect_failure([] { (void)require_acceptable(nothing_asked); }, "damaged-archive");
    appliance.damage(flash_place, Damage::absent);
    expect_failure([] { (void)require_acceptable(nothing_asked); }, "no-file");
    EXPECT_EQ(record_accepted_version(), saved_version);
    EXPECT_EQ(kestal_read_version(KESTA_VER_AREA_ACCEPT, 0, KESTA_VERSION_BY_MODE), saved_version);
}

TEST_F(EnvironmentSteps, AcceptedOneIsInItsSlotAndReadBack)
{
    write_file(merge_backup, MendedAppliance::archive(7));
    store_as_accepted(KESTA_SLOT1);
    EXPECT_EQ(appliance.at(slot_place + 1), MendedAppliance::archive(7));
    platform().fail_kind("sb_write", 0, 1);
    expect_failure([] { store_as_accepted(KESTA_SLOT1); }, "slot-failed");
}
