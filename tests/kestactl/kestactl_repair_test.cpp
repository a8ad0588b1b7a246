// The NV image as a whole, and its repair from the system backup area and back, on a lab.
#include <algorithm>

#include "lab_fixture.h"

using namespace test;
using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

const std::string twelve_items[] = {"backup-name",    "accept-name",  "numbering-version", "backup-version",
                                    "version-cnt0",   "version-cnt1", "version-cnt2",      "version-cnt3",
                                    "reboot-version", "wwn",          "serialno",          "guid"};

}  // namespace

class KestactlRepair : public LabTest {
protected:
    // An appliance in good order: every mirrored item holds a value of its own.
    void fill()
    {
        set_slots();
        int value = 40;
        std::string commands;
        for (const std::string &item : twelve_items) {
            if (item.find("version") != std::string::npos) {
                commands += "kestactl nv write " + item + " " + std::to_string(++value) + " && ";
            }
        }
        commands +=
            "kestactl nv write wwn 500000E0D0123400 && "
            "kestactl nv write serialno KESTA00000000042 && "
            "kestactl nv write guid 00112233445566778899aabbccddeeff";
        const Ran filled = on(0, commands);
        ASSERT_EQ(filled.code, 0) << filled.err;
        ASSERT_EQ(ctl(0, "nv verify").code, 0) << ctl(0, "nv verify").out;
    }
    void wipe_memory() const
    {
        for (const auto &entry : fs::directory_iterator(dir / "shared/nv")) {
            fs::remove(entry.path());
        }
    }
    void empty_area() const
    {
        for (const auto &entry : fs::directory_iterator(dir / "shared/sysback")) {
            fs::remove(entry.path());
        }
    }
    json verify(int controller = 0) const { return ctl(controller, "--json nv verify").json().at("result"); }
    std::string read(const std::string &block, const std::string &place) const
    {
        const Ran run = ctl(0, "nv read " + block + " --from " + place);
        return run.code == 0 ? run.out.substr(0, run.out.size() - 1) : "unreadable";
    }
    static std::vector<std::string> differing(const json &verified)
    {
        std::vector<std::string> names;
        for (const json &item : verified.at("items")) {
            if (item.at("differs").get<bool>()) {
                names.push_back(item.at("name"));
            }
        }
        return names;
    }
    void expect_refusal(const Ran &run, int code, const std::string &text)
    {
        EXPECT_EQ(run.code, code) << run.out << run.err;
        EXPECT_EQ(run.out, "");
        EXPECT_THAT(run.err, AllOf(testing::StartsWith("kestactl: "), HasSubstr(text)));
        EXPECT_GE(std::count(run.err.begin(), run.err.end(), '\n'), 2) << run.err;
    }
};

TEST_F(KestactlRepair, WipedMemoryIsDiagnosedAndMended)
{
    fill();
    wipe_memory();
    const Ran found = ctl(1, "nv verify");
    EXPECT_EQ(found.code, 1);
    EXPECT_THAT(found.out, AllOf(HasSubstr("NV memory is NOT valid"), HasSubstr("The system backup area is valid"),
                                 HasSubstr("'kestactl repair'")));
    const json before = verify();
    EXPECT_FALSE(before.at("memory_valid").get<bool>());
    EXPECT_TRUE(before.at("disk_valid").get<bool>());
    EXPECT_EQ(differing(before).size(), 11u) << "all but the reboot version, which lives on disk";

    const auto untouched = snapshot();
    const json plan = ctl(1, "--json repair --dry-run").json().at("result");
    EXPECT_TRUE(snapshot() == untouched);
    EXPECT_EQ(plan.at("winner"), "disk");
    EXPECT_EQ(plan.at("changes").size(), 11u);
    EXPECT_EQ(plan.at("changes").at(2).at("name"), "numbering-version");
    EXPECT_EQ(plan.at("changes").at(2).at("lost"), 0);
    EXPECT_EQ(plan.at("changes").at(2).at("becomes"), 41);

    const Ran mended = ctl(1, "repair");
    EXPECT_EQ(mended.code, 0) << mended.err;
    EXPECT_THAT(mended.out, AllOf(HasSubstr("it names both slots, and the other place does not"),
                                  HasSubstr("numbering-version: 0 -> 41")));
    EXPECT_EQ(ctl(2, "nv verify").code, 0);
    EXPECT_EQ(read("wwn", "memory"), "500000E0D0123400");
    EXPECT_EQ(read("guid", "memory"), "00112233445566778899aabbccddeeff00000000");

    const Ran again = ctl(1, "repair");
    EXPECT_EQ(again.code, 0);
    EXPECT_THAT(again.out, HasSubstr("Nothing to repair"));
}

TEST_F(KestactlRepair, EmptiedAreaIsDiagnosedAndMended)
{
    fill();
    empty_area();
    const json before = verify(3);
    EXPECT_TRUE(before.at("memory_valid").get<bool>());
    EXPECT_FALSE(before.at("disk_valid").get<bool>());
    EXPECT_EQ(differing(before).size(), 12u);
    const Ran mended = ctl(3, "repair");
    EXPECT_EQ(mended.code, 0) << mended.err;
    EXPECT_EQ(ctl(0, "nv verify").code, 0);
    EXPECT_EQ(read("version-cnt3", "sysback"), read("version-cnt3", "memory"));
    EXPECT_EQ(read("reboot-version", "sysback"), "0") << "created: memory has none";
}

TEST_F(KestactlRepair, WhereBothAreValidTheOperatorDecides)
{
    fill();
    ASSERT_EQ(ctl(0, "nv write numbering-version 99 --memory-only").code, 0);
    const Ran found = ctl(0, "nv verify");
    EXPECT_EQ(found.code, 1);
    EXPECT_THAT(found.out, HasSubstr("--from memory"));
    EXPECT_EQ(differing(verify()), std::vector<std::string>{"numbering-version"});
    const auto untouched = snapshot();
    const Ran undecided = ctl(0, "repair --dry-run");
    expect_refusal(undecided, 1, "both valid, and differ");
    const json loss = ctl(0, "--json repair --from disk --dry-run").json().at("result");
    EXPECT_EQ(loss.at("changes").size(), 1u);
    EXPECT_EQ(loss.at("changes").at(0).at("lost"), 99);
    EXPECT_EQ(loss.at("changes").at(0).at("becomes"), 41);
    EXPECT_TRUE(snapshot() == untouched);

    EXPECT_EQ(ctl(0, "repair --from memory").code, 0);
    EXPECT_EQ(read("numbering-version", "sysback"), "99");
    EXPECT_EQ(read("reboot-version", "sysback"), "47") << "it lives there: never replaced";

    ASSERT_EQ(ctl(0, "nv write numbering-version 5 --memory-only").code, 0);
    EXPECT_EQ(ctl(0, "repair --from disk").code, 0);
    EXPECT_EQ(read("numbering-version", "memory"), "99");
    EXPECT_EQ(verify().at("differ"), false);
}

TEST_F(KestactlRepair, MissingItemsAreAddedWithoutAsking)
{
    set_slots();  // a new appliance: the area holds the names, and nothing else yet
    EXPECT_THAT(ctl(0, "nv verify").out, HasSubstr("nothing is lost"));
    const Ran mended = ctl(0, "repair");
    EXPECT_EQ(mended.code, 0) << mended.err;
    EXPECT_EQ(ctl(0, "nv verify").code, 0);
}

TEST_F(KestactlRepair, NeitherValidAndBadSourcesAreRefused)
{
    expect_refusal(ctl(0, "repair"), 1, "Neither NV memory nor the system backup area");
    EXPECT_EQ(ctl(0, "nv verify").code, 1);
    fill();
    wipe_memory();
    expect_refusal(ctl(0, "repair --from memory"), 1, "NV memory is NOT valid");
    EXPECT_EQ(ctl(0, "repair --from nowhere").code, 2);
    EXPECT_EQ(read("accept-name", "sysback"), "kesta_backup1") << "nothing was copied";
}

TEST_F(KestactlRepair, SourceWithAHoleIsNamedBeforeAnythingIsChanged)
{
    fill();
    wipe_memory();
    fs::remove(dir / "shared/sysback/kesta_ver1");
    const Ran refused = ctl(0, "repair");
    expect_refusal(refused, 4, "version-cnt1");
    EXPECT_EQ(read("numbering-version", "memory"), "0");
    // What the hint says, and then the repair.
    EXPECT_EQ(ctl(0, "nv write version-cnt1 7").code, 0);
    EXPECT_EQ(ctl(0, "repair --from disk").code, 0);
    EXPECT_EQ(ctl(0, "nv verify").code, 0);
}

TEST_F(KestactlRepair, CutShortItDoesNotPassForDone)
{
    fill();
    fs::copy_file(KESTA_FAST_CLOCK_LIBRARY, host_path(0, "opt/libfast_clock.so"));
    for (int step = 2; step <= 12; step += 5) {
        wipe_memory();
        write_file(host_path(0, "opt/faults"), "nv_write " + std::to_string(step) + " once kill\n");
        const Ran killed = on(0, "KESTA_PLATFORM_FAULT_FILE=/opt/faults kestactl repair");
        EXPECT_NE(killed.code, 0) << step;
        const json state = verify();
        EXPECT_FALSE(state.at("memory_valid").get<bool>()) << step;
        EXPECT_TRUE(state.at("disk_valid").get<bool>()) << step;
        const Ran again = on(0, "LD_PRELOAD=/opt/libfast_clock.so kestactl repair");
        EXPECT_EQ(again.code, 0) << again.err;
        EXPECT_EQ(ctl(0, "nv verify").code, 0) << step;
    }
}

TEST_F(KestactlRepair, SuspendBootModeChangesNothing)
{
    fill();
    wipe_memory();
    const std::string conf = read_file(host_path(1, "etc/kesta/platform.conf"));
    write_file(host_path(1, "etc/kesta/platform.conf"), conf + "\nboot_mode = suspend\n");
    for (const char *command : {"repair", "nv init --yes", "nv clear --yes", "nv sync", "nv flags --req 1"}) {
        expect_refusal(ctl(1, command), 1, "Suspend");
    }
    EXPECT_EQ(ctl(1, "nv verify").code, 1) << "looking is allowed";
}

// ----------------------------------------------------------------------------- the image as a whole

class KestactlImage : public KestactlRepair {};

TEST_F(KestactlImage, InitAsksAndMakesANewImage)
{
    fill();
    ASSERT_EQ(ctl(0, "nv flags --synced 3").code, 0);
    const auto untouched = snapshot();
    expect_refusal(ctl(0, "nv init"), 2, "fields that hold something");
    expect_refusal(ctl(0, "nv clear"), 2, "fields that hold something");
    EXPECT_EQ(on(0, "echo no | script -qec 'kestactl nv init' /dev/null").code, 1);
    EXPECT_TRUE(snapshot() == untouched);

    const Ran answered = on(0, "echo yes | script -qec 'kestactl nv init' /dev/null");
    EXPECT_EQ(answered.code, 0) << answered.out;
    EXPECT_THAT(answered.out, HasSubstr("Go on?"));
    EXPECT_EQ(read("numbering-version", "memory"), "0");
    const json image = ctl(0, "--json nv dump").json().at("result");
    EXPECT_TRUE(image.at("stamped").get<bool>());
    EXPECT_EQ(ctl(0, "--json nv flags").json().at("result").at("synced"), 3)
        << "the flags are no part of what is made anew";
    EXPECT_EQ(ctl(0, "repair").code, 0);
    EXPECT_EQ(ctl(0, "nv verify").code, 0);

    EXPECT_EQ(ctl(0, "nv clear --yes").code, 0);
    EXPECT_EQ(read("backup-name", "memory"), "");
    EXPECT_EQ(ctl(0, "nv clear").code, 0) << "nothing is lost: nothing to ask";
}

TEST_F(KestactlImage, ImageInUseIsNotErased)
{
    set_slots();
    ASSERT_EQ(ctl(0, "nv init --keep-data").code, 0);
    ASSERT_EQ(ctl(1, "lock take").code, 0);
    for (const char *command : {"nv init --yes", "nv clear --yes"}) {
        const Ran refused = ctl(0, command);
        EXPECT_EQ(refused.code, 3) << refused.err;
        EXPECT_THAT(refused.err, HasSubstr("CNT1"));
    }
    EXPECT_EQ(read("backup-name", "memory"), "kesta_backup0");
}

TEST_F(KestactlImage, FlagsAreShownAndSetWithinAByte)
{
    EXPECT_EQ(ctl(0, "nv flags").out, "synced  0\nreq     0\n");
    EXPECT_EQ(ctl(0, "nv flags --synced -1 --req 127").code, 0);
    EXPECT_EQ(ctl(2, "nv flags").out, "synced  -1\nreq     127\n");
    EXPECT_EQ(ctl(0, "nv flags --req 2").code, 0);
    EXPECT_EQ(ctl(2, "nv flags").out, "synced  -1\nreq     2\n") << "the other one stays";
    for (const char *value : {"128", "-129", "x", ""}) {
        EXPECT_EQ(ctl(0, std::string("nv flags --req '") + value + "'").code, 2) << value;
    }
}

TEST_F(KestactlImage, DryRunsWriteNothing)
{
    fill();
    const auto untouched = snapshot();
    for (const std::string command :
         {"nv init", "nv init --keep-data", "nv clear", "nv sync", "nv flags --synced 1", "repair"}) {
        const Ran planned = ctl(0, command + " --dry-run");
        EXPECT_EQ(planned.code, 0) << command << planned.err;
        EXPECT_FALSE(planned.out.empty());
        EXPECT_TRUE(snapshot() == untouched) << command;
    }
}

TEST_F(KestactlImage, SyncRewritesWithoutAChange)
{
    fill();
    const std::string before = read_file(dir / "shared/nv/region2.img");
    EXPECT_EQ(ctl(0, "nv sync").code, 0);
    EXPECT_TRUE(read_file(dir / "shared/nv/region2.img") == before);
    EXPECT_TRUE(fs::exists(dir / "shared/nv/region0.img"));
}

TEST_F(KestactlImage, DumpInHexadecimalAndByFields)
{
    fill();
    ASSERT_EQ(ctl(0, "nv init --keep-data").code, 0);
    const std::string dump = ctl(0, "nv dump").out;
    EXPECT_THAT(dump, AllOf(HasSubstr("***** NV MEMORY [HEADER] *****\n"
                                      "00000000: 454e5656 02000000                    ENVV....  "),
                            HasSubstr("***** NV MEMORY [INNERLOCK] *****"), HasSubstr("kesta_backup0...")));
    EXPECT_EQ(std::count(dump.begin(), dump.end(), '\n'), 2 + 5 + 1 + 1 + 20 + 13 + 4);

    const Ran to_file = ctl(0, "nv dump --out /tmp/dump");
    EXPECT_EQ(to_file.code, 0) << to_file.err;
    EXPECT_THAT(on(0, "cat /tmp/dump").out, HasSubstr("[CNT_COMMON_TBL]"));
    expect_refusal(ctl(0, "nv dump --out /no/such/folder/dump"), 4, "dump could not be written");
    expect_refusal(ctl(0, "nv dump --region 9 --out /tmp/never"), 4, "dump could not be made");
    EXPECT_EQ(on(0, "ls /tmp | grep never").out, "") << "nothing is left of it";
    for (const char *plant : {"ln -s /etc/hosts /tmp/planted", "mkfifo /tmp/planted", "mkdir /tmp/planted"}) {
        EXPECT_EQ(on(0, plant).code, 0);
        expect_refusal(ctl(0, "nv dump --out /tmp/planted"), 1, "only plain files are read or replaced");
        EXPECT_EQ(on(0, "rm -r /tmp/planted").code, 0);
    }
    EXPECT_EQ(ctl(0, "nv dump --out ''").code, 2);

    const json image = ctl(0, "--json nv dump").json().at("result");
    std::size_t at = 0;
    std::map<std::string, json> fields;
    for (const json &field : image.at("fields")) {
        EXPECT_EQ(field.at("offset"), at) << field.at("name") << ": every byte once";
        at += field.at("size").get<std::size_t>();
        fields[field.at("name")] = field.at("value");
    }
    EXPECT_EQ(at, 664u);
    EXPECT_EQ(fields["magic"], "ENVV");
    EXPECT_EQ(fields["accept-name"], "kesta_backup1");
    EXPECT_EQ(fields["numbering-version"], 41);
    EXPECT_EQ(fields["serialno"], "KESTA00000000042");
    EXPECT_EQ(fields["innerlock-cnt0"].at("status"), 0);
    EXPECT_THAT(ctl(0, "nv dump --decoded").out, HasSubstr("numbering-version    41"));
}

TEST_F(KestactlImage, PagesOfARegion)
{
    set_slots();
    const std::string pages = ctl(0, "nv dump --region 2 --offset 72 --size 256").out;
    EXPECT_THAT(pages, AllOf(HasSubstr("[region=2/offset=72/size=256]"), HasSubstr("[0/2]"), HasSubstr("[1/2]"),
                             HasSubstr("kesta_backup0")));
    const json bytes = ctl(0, "--json nv dump --region 2 --offset 72 --size 5").json().at("result");
    EXPECT_EQ(bytes.at("bytes"), "6b65737461");
    expect_refusal(ctl(0, "nv dump --region 2 --offset 32700 --size 64"), 2, "32768");
    for (const char *arguments :
         {"--offset 4", "--region 2 --size 0", "--region x", "--region 2 --offset -1", "--region 2 --decoded"}) {
        EXPECT_EQ(ctl(0, std::string("nv dump ") + arguments).code, 2) << arguments;
    }
    EXPECT_EQ(ctl(0, "nv dump --region 9").code, 4) << "there are three";
}
