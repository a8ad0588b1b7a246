// What each verb that replaces an archive keeps of it first, on a lab.
#include "saved_group.h"

using namespace test;
using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

const std::string generations = "/opt/kesta_sys/bakup/generations";
const std::string merge_cache = "/var/run/kesta_sys/tmp/backup.tar.Z";

}  // namespace

class KestactlGenerations : public SavedGroup {
protected:
    KestactlGenerations()
    {
        define("");
        succeed("kestactl save network && kestactl accept");
    }

    // A whole archive that nothing else holds.
    std::string archive(const std::string &text) const
    {
        write_file(home / "made/etc/app/which", text);
        const Ran made = shell("tar -C " + (home / "made").string() + " -cj etc");
        EXPECT_EQ(made.code, 0) << made.err;
        return made.out;
    }
    std::string sum_of(const std::string &bytes) const
    {
        write_file(home / "summed", bytes);
        return shell("sha256sum < " + (home / "summed").string()).out.substr(0, 64);
    }
    // On the host, as the lab maps /opt, /tmp and /var/run.
    fs::path place_of(const std::string &place) const
    {
        if (place.rfind("kesta_backup", 0) == 0) {
            return dir / "shared/sysback" / place;
        }
        return host_path(0, place.rfind("/var/run", 0) == 0 ? place.substr(5) : place.substr(1));
    }
    std::string kept(const std::string &bytes) const
    {
        return read_file(host_path(0, generations.substr(1) + "/" + sum_of(bytes) + ".tar.Z"));
    }
    json entry(const std::string &bytes) const
    {
        return json::parse(read_file(host_path(0, generations.substr(1) + "/" + sum_of(bytes) + ".json")), nullptr,
                           false);
    }
    // Puts another archive into each of the places, runs the verb, and looks for them in the catalogue.
    void expect_kept(const std::string &verb, const std::vector<std::string> &places) const
    {
        std::map<std::string, std::string> before;
        for (const std::string &place : places) {
            before[place] = archive(verb + " " + place);
            write_file(place_of(place), before[place]);
        }
        const Ran planned = ctl(0, verb + " --dry-run");
        EXPECT_EQ(planned.code, 0) << verb << planned.err;
        EXPECT_THAT(planned.out, HasSubstr("/opt/kesta_sys/bakup")) << verb;
        const Ran ran = ctl(0, verb + " --comment 'for a test'");
        EXPECT_EQ(ran.code, 0) << verb << ran.out << ran.err;
        for (const auto &[place, bytes] : before) {
            EXPECT_NE(read_file(place_of(place)), bytes) << verb << " does not replace " << place;
            EXPECT_TRUE(kept(bytes) == bytes) << verb << ": " << place;
            const std::string slot = place[0] == '/' ? place : "slot:" + place;
            const json noted = entry(bytes);
            ASSERT_FALSE(noted.is_discarded()) << verb << ": " << place;
            EXPECT_EQ(noted.at("places").at(0), slot) << verb;
            EXPECT_EQ(noted.at("kept").at("comment"), "for a test") << verb;
            EXPECT_EQ(verb.rfind(noted.at("kept").at("verb").get<std::string>(), 0), 0U) << verb;
            EXPECT_FALSE(noted.at("kept").at("user").get<std::string>().empty());
        }
    }
};

TEST_F(KestactlGenerations, SaveKeepsTheLastOneWithItsVersionAndGroup)
{
    const std::string first = read_file(place_of(flash_backup));
    write_file(host_path(0, "etc/app/one"), "changed\n");
    const json saved = ctl(0, "--json save network --comment 'second try'").json().at("result");
    ASSERT_EQ(saved.at("kept").size(), 1U) << saved.dump(2);
    EXPECT_EQ(saved.at("kept").at(0).at("sha256"), sum_of(first));
    EXPECT_EQ(saved.at("kept").at(0).at("version"), 1);
    EXPECT_EQ(saved.at("kept").at(0).at("group"), "network");
    EXPECT_TRUE(kept(first) == first);
    const json noted = entry(first);
    EXPECT_EQ(noted.at("places"), json::array({flash_backup, "slot:kesta_backup0"})) << "once for both";
    EXPECT_TRUE(noted.at("version_recorded").get<bool>());
    EXPECT_EQ(noted.at("saved").at("verb"), "save");
    EXPECT_EQ(noted.at("kept").at("comment"), "second try");
    EXPECT_EQ(on(0, "stat -c '%a' " + generations + " && stat -c '%a %h' " + generations + "/*.tar.Z").out,
              "700\n644 1\n")
        << "it is the file that flash had";
    EXPECT_EQ(ctl(0, "verify").code, 0);
}

TEST_F(KestactlGenerations, EachVerbKeepsWhatItReplaces)
{
    write_file(host_path(0, "etc/kesta/archives.conf"), "generations = 100\n");
    for (const char *script : {"env_copy_scr.sh", "env_restore1_udbk_scr.sh"}) {
        write_file(host_path(0, std::string("etc/kesta_sys/network/") + script), "exit 0\n");
    }
    expect_kept("save network", {flash_backup, "kesta_backup0"});
    expect_kept("accept", {flash_accept, "kesta_backup1", merge_cache});
    expect_kept("restore network", {flash_backup});
    expect_kept("restore network --from accept", {flash_accept});
    expect_kept("restore network --switch-only", {flash_backup});
    expect_kept("restore network --script update", {flash_backup, merge_cache});
    expect_kept("copy cntbackup2backup", {"kesta_backup0"});
    expect_kept("copy merge-file2accept", {"kesta_backup1"});
    expect_kept("copy merge-file2accept --slot kesta_backup0", {"kesta_backup0"});
    expect_kept("copy backup2tmp", {"/tmp/kesta_sys/tmp/backup.tar.Z"});
    expect_kept("copy backup2tmp --check", {"/tmp/kesta_sys/tmp/check.tar.Z"});
    expect_kept("copy cntbackup2tmp", {"/tmp/kesta_sys/tmp/backup.tar.Z"});
    write_file(host_path(0, "etc/kesta/platform.conf"),
               read_file(host_path(0, "etc/kesta/platform.conf")) + "boot_mode = initconf\n");
    expect_kept("copy backup2copy network", {flash_backup, "/tmp/kesta_sys/tmp/backup.tar.Z"});
}

TEST_F(KestactlGenerations, DamagedOneIsNotKeptAndTold)
{
    write_file(place_of("kesta_backup0"), archive("whole").substr(0, 100));
    write_file(host_path(0, "etc/app/one"), "changed\n");
    const Ran saved = ctl(0, "save network");
    EXPECT_EQ(saved.code, 0) << saved.err;
    EXPECT_THAT(saved.out, AllOf(HasSubstr("slot:kesta_backup0 holds a damaged archive: it was not kept"),
                                 HasSubstr("Kept generation ")));
    EXPECT_EQ(on(0, "ls " + generations + "/*.tar.Z | wc -l").out, "1\n");
}

TEST_F(KestactlGenerations, WhatCanNotBeReadIsNotOverwritten)
{
    fs::rename(place_of("kesta_backup0"), dir / "shared/sysback/away");
    fs::create_directory(place_of("kesta_backup0"));
    const std::string before = read_file(place_of(flash_backup));
    write_file(host_path(0, "etc/app/one"), "changed\n");
    const int numbering = number("numbering-version");
    expect_refusal(ctl(0, "save network"), 4, "Slot kesta_backup0 can't be read, and so not be kept");
    EXPECT_EQ(read_file(place_of(flash_backup)), before);
    EXPECT_EQ(number("numbering-version"), numbering);
}

TEST_F(KestactlGenerations, WhatCanNotBeKeptIsNotOverwritten)
{
    fs::remove_all(host_path(0, generations.substr(1)));
    write_file(host_path(0, generations.substr(1)), "no folder");
    const std::string before = read_file(place_of(flash_backup));
    write_file(host_path(0, "etc/app/one"), "changed\n");
    expect_refusal(ctl(0, "save network"), 4, "can't be kept, and nothing was changed");
    EXPECT_EQ(read_file(place_of(flash_backup)), before);
    EXPECT_EQ(ctl(0, "save network --keep 0").code, 0);
    EXPECT_NE(read_file(place_of(flash_backup)), before);
}

TEST_F(KestactlGenerations, FullDiskDropsTheOldestFirstAndThenRefuses)
{
    // Files that don't shrink when they are packed: 100 kB each, and the disk has room for four.
    const std::string save = "head -c 100000 /dev/urandom > /etc/app/one; kestactl save network";
    const Ran full = on(0,
                        "mount -t tmpfs -o size=480k tmpfs /opt/kesta_sys/bakup; cd /opt/kesta_sys/bakup; "
                        "for i in 1 2 3 4 5 6; do " +
                            save +
                            " || exit 1; done; ls generations/*.tar.Z | wc -l; "
                            "kestactl restore network --switch-only || exit 1; "
                            "rm generations/*; head -c 370000 /dev/urandom > filler; sha256sum backup.tar.Z > sum; " +
                            save + "; echo exit $?; sha256sum -c sum");
    EXPECT_THAT(full.out, AllOf(HasSubstr("The disk is full: the oldest generations were dropped.\n"),
                                HasSubstr("Dropped generation "), HasSubstr("(network, version 7).\n"),
                                HasSubstr("exit 4\n"), HasSubstr("backup.tar.Z: OK")))
        << full.out << full.err;
    EXPECT_THAT(full.err, HasSubstr("The archive could not be made"));
}

TEST_F(KestactlGenerations, NumberThatIsKeptIsASettingOrAnOption)
{
    const auto save = [this](const std::string &text, const std::string &options) {
        write_file(host_path(0, "etc/app/one"), text);
        const Ran saved = ctl(0, "save network" + options);
        EXPECT_EQ(saved.code, 0) << saved.err;
        return on(0, "ls " + generations + "/*.tar.Z | wc -l").out;
    };
    write_file(host_path(0, "etc/kesta/archives.conf"), "generations = 3\n");
    for (const char *text : {"a", "b", "c", "d", "e"}) {
        save(text, "");
    }
    // The accepted version is 1, and stays.
    EXPECT_EQ(save("f", ""), "3\n");
    EXPECT_EQ(save("g", " --keep 5"), "4\n");
    EXPECT_EQ(save("h", " --keep 1"), "2\n") << "the last one, and the accepted one";
    const std::string flash = read_file(place_of(flash_backup));
    EXPECT_EQ(save("i", " --keep 0"), "2\n") << "nothing is added, nothing dropped";
    EXPECT_EQ(kept(flash), "");
    EXPECT_THAT(ctl(0, "save network --keep 0").out, HasSubstr("Nothing was kept of what was replaced"));
    write_file(host_path(0, "etc/kesta/archives.conf"), "generations = 0\n");
    expect_refusal(ctl(0, "save network"), 4, "is no limit of archives");
}

TEST_F(KestactlGenerations, CommentIsOneLineOfText)
{
    for (const std::string comment : {"$(printf 'a\\nb')", "$(printf '\\033[2J')", "$(printf %0201d 0)"}) {
        const Ran refused = ctl(0, "save network --comment \"" + comment + "\"");
        expect_refusal(refused, 2, "omment");
    }
    EXPECT_EQ(ctl(0, "save network --keep -1").code, 2);
}
