// Putting a group's files back by its definition, on a lab.
#include <pwd.h>

#include <set>
#include <sstream>

#include "saved_group.h"

using namespace test;
using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class KestactlRestore : public SavedGroup {
protected:
    KestactlRestore()
    {
        define("");
        EXPECT_EQ(ctl(0, "save network").code, 0);
    }
    void spoil() const
    {
        write_file(host_path(0, "etc/app/one"), "spoiled\n");
        fs::remove_all(host_path(0, "etc/app/more"));
        write_file(host_path(0, "etc/app/other"), "not of the group\n");
    }
    void expect_mended() const
    {
        EXPECT_EQ(file_on(0, "/etc/app/one"), "one\n");
        EXPECT_EQ(file_on(0, "/etc/app/more/two"), "two\n");
        EXPECT_EQ(on(0, "find /etc /opt -name '.*kesta-new' -o -name .restore -o -name '.restore.new'").out, "");
    }
    // An archive that nobody's save has made, in the backup slot.
    void plant(const std::string &commands) const
    {
        succeed(
            "rm -rf /opt/plant && mkdir -p /opt/plant/etc/app/more && cd /opt/plant && "
            "echo planted > etc/app/one && echo planted > etc/app/more/two && " +
            commands);
        succeed("cp /opt/plant.tar.bz2 " + flash_backup + " && kestactl copy cntbackup2backup --force");
    }
    void expect_nothing_taken(const std::string &because) const
    {
        expect_refusal(ctl(0, "restore network"), 1, because);
        EXPECT_EQ(file_on(0, "/etc/app/one"), "one\n");
        EXPECT_EQ(file_on(0, "/etc/app/more/two"), "two\n");
        EXPECT_EQ(on(0, "ls /opt/outside").code, 2);
    }
    std::map<std::string, json> bad() const
    {
        std::map<std::string, json> found;
        const json answer = ctl(0, "--json verify").json();
        for (const json &subject : answer.at("result").at("subjects")) {
            if (subject.at("state") != "agree" && subject.at("state") != "absent") {
                found[subject.at("subject")] = subject;
            }
        }
        return found;
    }
};

TEST_F(KestactlRestore, FilesOfTheGroupAreAsTheyWereSaved)
{
    spoil();
    const Ran restored = ctl(0, "restore network");
    ASSERT_EQ(restored.code, 0) << restored.out << restored.err;
    EXPECT_THAT(restored.out, HasSubstr("Restored network from the backup, version 1: 3 replaced, "));
    expect_mended();
    EXPECT_EQ(file_on(0, "/etc/app/other"), "not of the group\n");
    EXPECT_EQ(ctl(0, "verify").code, 0);

    const json again = ctl(0, "--json restore network").json().at("result");
    EXPECT_EQ(again.at("replaced"), json::array()) << "what is right already is left alone";
    EXPECT_EQ(again.at("version"), 1);
    EXPECT_EQ(again.at("reboot_needed"), false);
}

TEST_F(KestactlRestore, OwnersModesAndTimesComeWithTheFiles)
{
    succeed(
        "chown nobody /etc/app/more/two && chgrp daemon /etc/app/more/two && "
        "chmod 2640 /etc/app/more/two && chmod 751 /etc/app/more && touch -d @1000000000 /etc/app/one && "
        "kestactl save network");
    const std::string shown =
        "stat -c '%U %G %a' /etc/app/more/two; stat -c %a /etc/app/more; "
        "stat -c %Y /etc/app/one";
    const std::string before = on(0, shown).out;
    spoil();
    ASSERT_EQ(ctl(0, "restore network").code, 0);
    expect_mended();
    EXPECT_EQ(on(0, shown).out, before);

    succeed("chmod 600 /etc/app/more/two");
    const json adjusted = ctl(0, "--json restore network").json().at("result");
    EXPECT_EQ(adjusted.at("adjusted"), json::array({"/etc/app/more/two"}));
    EXPECT_EQ(adjusted.at("replaced"), json::array());
    EXPECT_EQ(on(0, shown).out, before);
}

TEST_F(KestactlRestore, OwnersGoByNameWhereTheSystemKnowsIt)
{
    plant("tar --owner=nobody:4711 --group=ghosts:4712 -cjf /opt/plant.tar.bz2 etc");
    ASSERT_EQ(ctl(0, "restore network").code, 0);
    EXPECT_EQ(on(0, "stat -c '%U %g' /etc/app/one").out, "nobody 4712\n");
}

TEST_F(KestactlRestore, MissingParentsGetTheirRecordedModes)
{
    succeed("chmod 2750 /etc/app && kestactl save network && rm -r /etc/app");
    ASSERT_EQ(ctl(0, "restore network").code, 0);
    EXPECT_EQ(on(0, "stat -c %a /etc/app").out, "2750\n");
    expect_mended();
}

TEST_F(KestactlRestore, PropertiesAndLinksOfTheDefinitionAreApplied)
{
    define("",
           "<file path=\"/etc/app/one\"><link path=\"/etc/app/alias\"/>"
           "<permission userid=\"nobody\" mode=\"640\"/></file><file path=\"/etc/app/more\"/>");
    ASSERT_EQ(ctl(0, "restore network").code, 0);
    EXPECT_EQ(on(0, "stat -c '%U %a' /etc/app/one; readlink /etc/app/alias").out, "nobody 640\n/etc/app/one\n");
}

TEST_F(KestactlRestore, AcceptedEnvironmentWithItsVersion)
{
    ASSERT_EQ(ctl(0, "accept").code, 0);
    write_file(host_path(0, "etc/app/one"), "second\n");
    ASSERT_EQ(ctl(0, "save network").code, 0);
    const Ran restored = ctl(0, "restore network --from accept");
    ASSERT_EQ(restored.code, 0) << restored.err;
    EXPECT_THAT(restored.out, HasSubstr("from the accept, version 1"));
    EXPECT_EQ(file_on(0, "/etc/app/one"), "one\n");
    EXPECT_EQ(number("version-cnt0"), 1);
    EXPECT_EQ(file_on(0, "/etc/kesta_sys/version"), "1\n");
    EXPECT_EQ(file_on(0, flash_backup), slot("kesta_backup0")) << "the saved one stays";
    EXPECT_EQ(ctl(0, "verify").code, 0) << ctl(0, "verify").out;

    ASSERT_EQ(ctl(0, "restore network --from kesta_backup0").code, 0);
    EXPECT_EQ(file_on(0, "/etc/app/one"), "second\n");
    EXPECT_EQ(number("version-cnt0"), 2);
}

TEST_F(KestactlRestore, OtherControllerTakesTheEnvironmentOver)
{
    write_file(host_path(1, "etc/kesta_sys/network/define.xml"),
               read_file(host_path(0, "etc/kesta_sys/network/define.xml")));
    ASSERT_EQ(ctl(1, "restore network").code, 0);
    EXPECT_EQ(file_on(1, "/etc/app/one"), "one\n");
    EXPECT_EQ(file_on(1, flash_backup), slot("kesta_backup0"));
    EXPECT_EQ(number("version-cnt1"), 1);
    EXPECT_EQ(ctl(1, "verify").code, 0) << ctl(1, "verify").out;
}

TEST_F(KestactlRestore, ForTheNextReboot)
{
    define("", two_paths,
           script_line("pre-script", note("before"), 1) + script_line("post-script", note("live"), 1) +
               script_line("re-post-script", note("reboot"), 1));
    spoil();
    const Ran restored = ctl(0, "restore network --on-reboot");
    ASSERT_EQ(restored.code, 0) << restored.err;
    EXPECT_THAT(restored.out, HasSubstr("Reboot this controller"));
    expect_mended();
    EXPECT_EQ(file_on(0, log_file), "before\nreboot\n");
    EXPECT_EQ(number("reboot-version"), 1);
    EXPECT_EQ(file_on(0, "/etc/kesta_sys/reboot"), "1\n");

    ASSERT_EQ(ctl(0, "restore network").code, 0);
    EXPECT_EQ(file_on(0, log_file), "before\nreboot\nbefore\nlive\n");
}

TEST_F(KestactlRestore, FileThatAsksForARebootOnlyWhereItChanged)
{
    define("", "<file path=\"/etc/app/one\" diffreboot=\"1\"/><file path=\"/etc/app/more\"/>");
    EXPECT_EQ(ctl(0, "--json restore network").json().at("result").at("reboot_needed"), false);
    spoil();
    EXPECT_EQ(ctl(0, "--json restore network").json().at("result").at("reboot_needed"), true);
}

TEST_F(KestactlRestore, PartOfItLeavesTheRestAndTheVersions)
{
    spoil();
    write_file(host_path(0, "etc/kesta_sys/version"), "7\n");
    const json part = ctl(0, "--json restore network --only /etc/app/more/two").json().at("result");
    EXPECT_EQ(part.at("replaced"), json::array({"/etc/app/more/two"}));
    EXPECT_TRUE(part.at("version").is_null());
    EXPECT_EQ(file_on(0, "/etc/app/more/two"), "two\n");
    EXPECT_EQ(file_on(0, "/etc/app/one"), "spoiled\n");
    EXPECT_EQ(file_on(0, "/etc/kesta_sys/version"), "7\n");

    for (const char *path : {"/etc/app/other", "/etc/app", "etc/app/one", "/etc/app/more/../one", "/"}) {
        expect_refusal(ctl(0, std::string("restore network --only ") + path), 1, "has no path");
    }
    EXPECT_EQ(ctl(0, "restore network --only /etc/app/more/").code, 0) << "as a shell completes a folder";
    succeed("echo spoiled > /etc/app/more/two");
    EXPECT_EQ(ctl(0, "restore network --only //etc/app//more//two").code, 0) << "as a shell joins paths";
    EXPECT_EQ(file_on(0, "/etc/app/more/two"), "two\n");
    expect_refusal(ctl(0, "restore network --only /etc/app/more/three"), 1, "has no /etc/app/more/three");
}

TEST_F(KestactlRestore, FilesThatWereGoneAreRemovedWhereTheGroupAllowsIt)
{
    const std::string files = "<file path=\"/etc/app/one\"/><file path=\"/etc/app/late\"/>";
    define("", files, "", "addremove");
    ASSERT_EQ(ctl(0, "save network").code, 0);
    write_file(host_path(0, "etc/app/late"), "added\n");
    EXPECT_THAT(ctl(0, "restore network --dry-run").out, HasSubstr("/etc/app/late (removed"));
    const json restored = ctl(0, "--json restore network").json().at("result");
    EXPECT_EQ(restored.at("removed"), json::array({"/etc/app/late"}));
    EXPECT_EQ(on(0, "ls /etc/app/late").code, 2);

    // A path that is only spelled otherwise was not gone.
    succeed("kestactl restore network --only /etc/app//one && cat /etc/app/one");
    define("", "<file path=\"/etc/app//one\"/>", "", "addremove");
    expect_refusal(ctl(0, "restore network"), 1, "a slash too many");
    succeed("cat /etc/app/one");

    write_file(host_path(0, "etc/app/late"), "added\n");
    define("", files);
    expect_refusal(ctl(0, "restore network"), 1, "has no /etc/app/late");
    EXPECT_EQ(file_on(0, "/etc/app/late"), "added\n");
}

TEST_F(KestactlRestore, TimesBefore1970ComeBack)
{
    const std::string times = "cd /etc/app && stat -c '%n %Y' one more/two";
    define("");
    succeed("cd /etc/app && touch -d @-86400 one && touch -d @-2000000000 more/two");
    const std::string before = on(0, times).out;
    EXPECT_THAT(before, AllOf(HasSubstr("one -86400"), HasSubstr("two -2000000000")));
    ASSERT_EQ(ctl(0, "save network").code, 0);
    succeed(
        "rm -r /etc/app/more && echo changed > /etc/app/one && touch -d @-5 /etc/app/one && kestactl restore network");
    EXPECT_EQ(on(0, times).out, before);
    succeed("kestactl undo --yes");
    EXPECT_EQ(on(0, "cd /etc/app && cat one && stat -c %Y one").out, "changed\n-5\n");
    plant("touch -d @-77 etc/app/one && tar --format=gnu -cjf /opt/plant.tar.bz2 etc");  // as others write it
    ASSERT_EQ(ctl(0, "restore network").code, 0);
    EXPECT_EQ(on(0, "stat -c %Y /etc/app/one").out, "-77\n");
}

// A part of the group goes by the rule of the whole: what the definition names may have been gone, a new file in a
// folder that was saved was not.
TEST_F(KestactlRestore, NewFileOfASavedFolderStaysAlsoWhereItAloneIsRestored)
{
    define("", "<file path=\"/etc/app/more\"/><file path=\"/etc/app/late\"/>", "", "addremove");
    ASSERT_EQ(ctl(0, "save network").code, 0);
    write_file(host_path(0, "etc/app/more/new"), "new\n");
    write_file(host_path(0, "etc/app/late/one"), "one\n");
    write_file(host_path(0, "etc/app/late/other"), "other\n");
    expect_refusal(ctl(0, "restore network --only /etc/app/more/new"), 1, "has no /etc/app/more/new: nothing was");
    EXPECT_EQ(ctl(0, "restore network --only /etc/app/late/one").code, 0);
    EXPECT_EQ(on(0, "ls /etc/app/late").out, "other\n") << "the folder was gone as a whole";
    succeed("rm -r /etc/app/late && echo new > /etc/app/late && kestactl restore network");
    EXPECT_EQ(on(0, "ls /etc/app/late").code, 2);
    EXPECT_EQ(file_on(0, "/etc/app/more/new"), "new\n");
}

TEST_F(KestactlRestore, MembersOfOtherGroupsAreLeftAlone)
{
    plant(
        "mkdir opt && echo planted > opt/outside && echo planted > etc/shadow && "
        "tar -cjf /opt/plant.tar.bz2 etc/shadow etc/app opt/outside");
    const std::string before = file_on(0, "/etc/shadow");
    const Ran restored = ctl(0, "restore network");
    ASSERT_EQ(restored.code, 0) << restored.err;
    EXPECT_THAT(restored.out, HasSubstr("2 members of the archive are not of this group"));
    EXPECT_EQ(file_on(0, "/etc/app/one"), "planted\n");
    EXPECT_EQ(file_on(0, "/etc/shadow"), before);
    EXPECT_EQ(on(0, "ls /opt/outside").code, 2);
}

TEST_F(KestactlRestore, NamesThatLeadOutsideAreRefused)
{
    plant("tar -cjf /opt/plant.tar.bz2 etc --transform 's,etc/app/more/two,etc/app/more/../../../opt/outside,' -P");
    expect_nothing_taken("not below the root");
    plant("tar -P -cjf /opt/plant.tar.bz2 etc --transform 's,etc/app/more/two,/opt/outside,'");
    expect_nothing_taken("'/opt/outside'");
    // First a link, then a file through it.
    plant(
        "rm -r etc/app/more && ln -s /opt etc/app/more && tar -cf /opt/plant.tar etc && rm etc/app/more && "
        "mkdir etc/app/more && echo planted > etc/app/more/outside && "
        "tar -rf /opt/plant.tar etc/app/more/outside && bzip2 -fc /opt/plant.tar > /opt/plant.tar.bz2");
    expect_nothing_taken("leads out of the group");
    plant("rm etc/app/one && ln -s ../../opt/secret etc/app/one && tar -cjf /opt/plant.tar.bz2 etc");
    expect_nothing_taken("leads out of the group");
    plant("echo x > etc/shadow && ln -f etc/shadow etc/app/one && tar -cjf /opt/plant.tar.bz2 etc/shadow etc/app");
    expect_nothing_taken("another name of 'etc/shadow'");
    plant("rm etc/app/one && mkfifo etc/app/one && tar -cjf /opt/plant.tar.bz2 etc");
    expect_nothing_taken("neither a file nor a folder nor a link");
    plant("tar -cjf - etc | head -c 120 > /opt/plant.tar.bz2");
    expect_nothing_taken("is damaged");
    plant("echo no archive > /opt/plant.tar.bz2");
    expect_nothing_taken("is damaged");
}

TEST_F(KestactlRestore, LinksWithinTheGroupComeBack)
{
    succeed(
        "ln -s one /etc/app/more/to_one && ln -s ../one /etc/app/more/up && rm /etc/app/more/to_one && "
        "ln /etc/app/more/two /etc/app/more/second_name && kestactl save network");
    spoil();
    ASSERT_EQ(ctl(0, "restore network").code, 0);
    expect_mended();
    EXPECT_EQ(on(0, "readlink /etc/app/more/up").out, "../one\n");
    EXPECT_EQ(on(0, "stat -c %h /etc/app/more/two").out, "2\n");
    succeed("echo spoiled > /etc/app/more/two");  // and under its second name
    ASSERT_EQ(ctl(0, "restore network").code, 0);
    EXPECT_EQ(file_on(0, "/etc/app/more/second_name"), "two\n");
    EXPECT_EQ(on(0, "stat -c %h /etc/app/more/two").out, "2\n");

    succeed("ln -s /etc/shadow /etc/app/more/out");
    expect_refusal(ctl(0, "save network"), 1, "leads out of the group");
}

TEST_F(KestactlRestore, SomebodyElsesLinkInTheWayIsNotFollowed)
{
    succeed(
        "mkdir /opt/elsewhere && rm -r /etc/app && ln -s /opt/elsewhere /etc/app && "
        "chown -h nobody /etc/app");
    expect_refusal(ctl(0, "restore network"), 1, "is no folder of root's");
    EXPECT_EQ(on(0, "ls -A /opt/elsewhere").out, "");
    succeed("chown -h root /etc/app");
    EXPECT_EQ(ctl(0, "restore network").code, 0) << "an operator may have moved the folder";
    EXPECT_EQ(file_on(0, "/opt/elsewhere/one"), "one\n");
}

TEST_F(KestactlRestore, FolderInAFilesPlaceIsRefused)
{
    succeed("rm /etc/app/one && mkdir /etc/app/one");
    expect_refusal(ctl(0, "restore network"), 1, "is a folder here");
    succeed("rmdir /etc/app/one && rm -r /etc/app/more && echo x > /etc/app/more");
    expect_refusal(ctl(0, "restore network"), 1, "/etc/app/more");
    EXPECT_EQ(file_on(0, "/etc/app/more"), "x\n");
}

TEST_F(KestactlRestore, ScriptThatFailsLeavesTheFilesAsTheyAre)
{
    define("", two_paths,
           script_line("pre-script", "echo stopped 1>&amp;2; exit 3", 1) +
               script_line("post-script", note("started"), 1));
    spoil();
    const Ran failed = ctl(0, "restore network");
    expect_refusal(failed, 4, "exit code 3");
    EXPECT_THAT(failed.err, HasSubstr("stopped"));
    EXPECT_EQ(file_on(0, "/etc/app/one"), "spoiled\n");
    EXPECT_EQ(file_on(0, log_file), "started\n") << "what was stopped is started again";
}

// So that the archive is not unpacked again once they have run.
TEST_F(KestactlRestore, WhatDiffersIsKeptAsideWhileTheScriptsRun)
{
    define("", two_paths, script_line("pre-script", "sh /opt/look.sh", 1));
    write_file(host_path(0, "opt/look.sh"),
               "ls -l /proc/[0-9]*/fd 2> /dev/null | grep -q 'bakup/#.*(deleted)' && " + note("kept") + "; true\n");
    succeed(
        "head -c 600000 /dev/urandom > /etc/app/more/large && kestactl save network && cp -r /etc/app /opt/before && "
        "echo spoiled > /etc/app/more/large");
    const Ran restored = ctl(0, "restore network");
    ASSERT_EQ(restored.code, 0) << restored.err;
    EXPECT_EQ(file_on(0, log_file), "kept\n");
    succeed("diff -r /etc/app /opt/before && ! ls -A /opt/kesta_sys/bakup | grep '#'");
}

TEST_F(KestactlRestore, LocksKeepOthersAway)
{
    spoil();
    ASSERT_EQ(ctl(1, "lock take").code, 0);
    EXPECT_EQ(ctl(0, "restore network").code, 3);
    EXPECT_EQ(file_on(0, "/etc/app/one"), "spoiled\n");
    ASSERT_EQ(ctl(1, "lock release --force").code, 0);
    define("", two_paths, script_line("pre-script", "kestactl lock release --force", 1));
    const Ran lost = ctl(0, "restore network");
    EXPECT_EQ(lost.code, 3) << lost.err;
    EXPECT_THAT(lost.err, HasSubstr("not ours any more"));
    EXPECT_EQ(file_on(0, "/etc/app/one"), "spoiled\n");
}

TEST_F(KestactlRestore, UnfinishedOneIsNamedAndCompletedFirst)
{
    spoil();
    // Its last rename can't be done: the file is a mount point.
    succeed("mkdir -p /etc/app/more && echo old > /etc/app/more/two");
    const Ran cut = on(0,
                       "mount --bind /etc/app/more/two /etc/app/more/two && kestactl restore network; "
                       "code=$?; umount /etc/app/more/two; exit $code");
    EXPECT_EQ(cut.code, 4) << cut.out << cut.err;
    EXPECT_THAT(cut.err, AllOf(HasSubstr("Some of the group's files are new, some old"),
                               HasSubstr("kestactl restore network --from backup")));
    EXPECT_EQ(file_on(0, "/etc/app/one"), "one\n");
    EXPECT_EQ(file_on(0, "/etc/app/more/two"), "old\n");
    EXPECT_EQ(bad().at("leftovers").at("mend"), json::array({{"kestactl", "restore", "network", "--from", "backup"}}));

    expect_refusal(ctl(0, "save network"), 1, "is unfinished");
    expect_refusal(ctl(0, "restore network --only /etc/app/one"), 1, "is unfinished");
    ASSERT_EQ(ctl(0, "restore network --from backup").code, 0);
    expect_mended();
    EXPECT_EQ(ctl(0, "verify").code, 0);
}

TEST_F(KestactlRestore, DryRunShowsEachPathAndWritesNothing)
{
    spoil();
    define("", two_paths, script_line("post-script", note("after"), 1));
    const auto untouched = snapshot();
    const Ran planned = ctl(0, "restore network --dry-run");
    EXPECT_EQ(planned.code, 0) << planned.err;
    EXPECT_THAT(planned.out, AllOf(HasSubstr("writes /etc/app/one\n"), HasSubstr("writes /etc/app/more/two\n"),
                                   HasSubstr("run " + note("after"))));
    EXPECT_TRUE(snapshot() == untouched);
}

TEST_F(KestactlRestore, StepsAreToldAsEvents)
{
    const Ran restored = ctl(0, "--json restore network");
    ASSERT_EQ(restored.code, 0);
    std::istringstream lines(restored.err);
    std::vector<json> events;
    for (std::string line; std::getline(lines, line);) {
        events.push_back(json::parse(line));
    }
    ASSERT_GE(events.size(), 2u);
    EXPECT_EQ(events.front().at("event"), "begin");
    EXPECT_EQ(events.front().at("step"), 1);
    EXPECT_EQ(events.back().at("event"), "end");
    EXPECT_EQ(events.back().at("step"), events.back().at("of"));
    EXPECT_EQ(ctl(0, "restore network").err, "") << "nobody looks at no terminal";
}

TEST_F(KestactlRestore, TwoWaysAreNotMixed)
{
    EXPECT_EQ(ctl(0, "restore network --only /etc/app/one --script update").code, 2);
    EXPECT_EQ(ctl(0, "restore network --on-reboot --switch-only").code, 2);
    EXPECT_EQ(ctl(0, "restore network --from kesta_backup7").code, 2);
}

// ------------------------------------------------------------------------------------------------- the power fails

namespace {

// One call that changes the disk, as strace shows it: "renameat(5</etc/app>, ".one", 5</etc/app>, "one") = 0".
struct DiskCall {
    std::string name;
    std::vector<std::string> paths;  // of descriptors, in their order
    std::vector<std::string> texts;  // between quotes

    std::string from() const { return paths.at(0) + "/" + texts.at(0); }
    std::string to() const { return paths.at(1) + "/" + texts.at(1); }
    bool is_flush() const { return name == "fsync" || name == "syncfs"; }
    bool is_placing() const { return name == "renameat" || name == "renameat2"; }
};

std::vector<DiskCall> disk_calls(const std::string &shown)
{
    std::vector<DiskCall> calls;
    std::istringstream lines(shown);
    for (std::string line; std::getline(lines, line);) {
        DiskCall call;
        call.name = line.substr(0, line.find('('));
        for (std::size_t at = line.find('('); at < line.size(); ++at) {
            const char end = line[at] == '<' ? '>' : line[at] == '"' ? '"' : '\0';
            if (end != '\0') {
                const std::size_t begin = at + 1;
                at = line.find(end, begin);
                (end == '>' ? call.paths : call.texts).push_back(line.substr(begin, at - begin));
            }
        }
        calls.push_back(call);
    }
    return calls;
}

// What a power cut could spoil; empty: nothing. A flush that is left out is taken for not made.
std::string complaint(const std::vector<DiskCall> &calls, std::size_t left_out)
{
    std::set<std::string> unflushed_files;
    std::set<std::string> unflushed_folders;
    for (std::size_t i = 0; i < calls.size(); ++i) {
        const DiskCall &call = calls[i];
        if (call.name == "pwrite64" || call.name == "ftruncate") {
            unflushed_files.insert(call.paths.at(0));
        } else if (call.name == "symlinkat") {
            unflushed_files.insert(call.paths.at(0) + "/" + call.texts.at(1));
        } else if (call.name == "syncfs" && i != left_out) {
            unflushed_files.clear();
        } else if (call.name == "fsync" && i != left_out) {
            unflushed_files.erase(call.paths.at(0));
            unflushed_folders.erase(call.paths.at(0));
        } else if (call.is_placing()) {
            if (unflushed_files.contains(call.from())) {
                return call.to() + " may be empty";
            }
            unflushed_folders.insert(call.paths.at(1));
        }
    }
    return unflushed_folders.empty() ? "" : *unflushed_folders.begin() + " may have the old names";
}

}  // namespace

TEST_F(KestactlRestore, EachFlushIsNeededAndNoMoreAreMade)
{
    for (int i = 0; i < 20; ++i) {
        write_file(host_path(0, "etc/app/more/file" + std::to_string(i)), "contents " + std::to_string(i));
    }
    succeed("ln -s one /etc/app/more/link");
    define("", "<file path=\"/etc/app\"/>");
    ASSERT_EQ(ctl(0, "save network").code, 0);
    succeed("find /etc/app -type f -exec sh -c 'echo spoiled > $0' {} \\; && rm /etc/app/more/link");
    const Ran restored =  // the leak checker does not bear being traced
        on(0,
           "ASAN_OPTIONS=detect_leaks=0 strace -qq -y -o /tmp/calls -e "
           "trace=pwrite64,ftruncate,symlinkat,renameat,renameat2,fsync,syncfs "
           "kestactl restore network && grep /etc/app /tmp/calls");
    ASSERT_EQ(restored.code, 0) << restored.err;
    const std::vector<DiskCall> calls = disk_calls(restored.out.substr(restored.out.find("\npwrite64") + 1));
    EXPECT_EQ(complaint(calls, calls.size()), "");
    int flushes = 0;
    for (std::size_t i = 0; i < calls.size(); ++i) {
        if (calls[i].is_flush()) {
            ++flushes;
            EXPECT_NE(complaint(calls, i), "") << calls[i].name << " of " << calls[i].paths.at(0);
        }
    }
    EXPECT_EQ(flushes, 3) << "one of the file system, and one for each folder";
    EXPECT_EQ(file_on(0, "/etc/app/one"), "one\n");
}
