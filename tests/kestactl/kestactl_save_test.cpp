// Saving and accepting an environment in one command each, on a lab.
#include <signal.h>

#include <algorithm>

#include "saved_group.h"

using namespace test;
using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class KestactlSave : public SavedGroup {
protected:
    KestactlSave()
    {
        define(script_line("pre-script", note("before"), 1) + script_line("post-script", note("after"), 1));
    }
};

TEST_F(KestactlSave, WholeEnvironmentIsSavedAndNumbered)
{
    const Ran saved = ctl(0, "save network");
    ASSERT_EQ(saved.code, 0) << saved.out << saved.err;
    EXPECT_THAT(saved.out, HasSubstr("Saved network as version 1."));
    const std::string archive = file_on(0, flash_backup);
    EXPECT_EQ(slot("kesta_backup0"), archive);
    EXPECT_EQ(on(0, "tar -tjf " + flash_backup).out, "etc/\netc/app/\netc/app/one\netc/app/more/\netc/app/more/two\n")
        << "parents with their owners and modes, folders whole";
    EXPECT_EQ(number("numbering-version"), 1);
    EXPECT_EQ(number("backup-version"), 1);
    EXPECT_EQ(number("version-cnt0"), 1);
    EXPECT_EQ(file_on(0, "/etc/kesta_sys/version"), "1\n");
    EXPECT_EQ(file_on(0, log_file), "before\nafter\n");
    EXPECT_EQ(ctl(0, "lock check").code, 0);
    EXPECT_EQ(ctl(0, "nv read group").out, "\n") << "released with the lock";
    EXPECT_EQ(on(0, "ls -A /opt/kesta_sys/bakup").out, "backup.tar.Z\ngenerations\n");

    write_file(host_path(0, "etc/app/one"), "changed\n");
    const json second = ctl(0, "--json save network --event e1").json().at("result");
    EXPECT_EQ(second.at("version"), 2);
    EXPECT_EQ(second.at("scripts").size(), 2u);
    EXPECT_EQ(second.at("scripts").at(0).at("exit_code"), 0);
    EXPECT_EQ(on(0, "tar -xjf " + flash_backup + " -O etc/app/one").out, "changed\n");
}

TEST_F(KestactlSave, AcceptedOneIsACopyThatWasTested)
{
    expect_refusal(ctl(0, "accept"), 1, "no usable");
    ASSERT_EQ(ctl(0, "save network").code, 0);
    const Ran accepted = ctl(0, "accept");
    ASSERT_EQ(accepted.code, 0) << accepted.err;
    EXPECT_THAT(accepted.out, HasSubstr("Accepted version 1."));
    EXPECT_EQ(slot("kesta_backup1"), slot("kesta_backup0"));
    EXPECT_EQ(file_on(0, flash_accept), file_on(0, flash_backup));
    EXPECT_EQ(number("accept-version"), 1);

    const std::string good = slot("kesta_backup1");
    succeed("head -c 100 " + flash_accept + " > " + flash_backup);
    expect_refusal(ctl(0, "accept"), 1, "damaged");
    EXPECT_EQ(slot("kesta_backup1"), good);
    EXPECT_EQ(file_on(0, flash_accept), good);
}

TEST_F(KestactlSave, ScriptsRunInOrderWithEventAndStatus)
{
    const std::string show = "echo NAME $KESTA_EVENT $KESTA_VRBGETSTAT >> " + log_file;
    const auto named = [&](const std::string &name) {
        std::string text = show;
        return text.replace(text.find("NAME"), 4, name);
    };
    define(script_line("pre-script", named("third"), 3) + script_line("pre-script", named("first"), 1) +
           script_line("pre-script", named("second"), 2));
    ASSERT_EQ(ctl(0, "save network --event boot --platform-status up").code, 0);
    EXPECT_EQ(file_on(0, log_file), "first boot up\nsecond boot up\nthird boot up\n");
}

TEST_F(KestactlSave, ScriptThatFailsStopsItAndIsShown)
{
    define(script_line("pre-script", note("before"), 1) +
           script_line("pre-script", "echo the disk is full 1>&amp;2; exit 7", 2) +
           script_line("pre-script", note("never"), 3) + script_line("post-script", note("after"), 3));
    const Ran failed = ctl(0, "save network");
    expect_refusal(failed, 4, "exit code 7");
    EXPECT_THAT(failed.err, HasSubstr("the disk is full"));
    EXPECT_EQ(file_on(0, log_file), "before\nafter\n") << "what undoes is run all the same";
    EXPECT_EQ(on(0, "ls -A /opt/kesta_sys/bakup").out, "");
    EXPECT_EQ(number("numbering-version"), 0) << "no number is spent";
}

TEST_F(KestactlSave, ScriptThatHangsIsStopped)
{
    // Named apart: a lab sees the processes of the whole machine, other tests' among them.
    const std::string never = "/opt/never-" + std::to_string(getpid());
    define(script_line("pre-script", "trap '' TERM; mkfifo " + never + "; cat " + never, 1));
    const Ran stopped = ctl(0, "save network --script-timeout 1");
    expect_refusal(stopped, 4, "did not end in time");
    EXPECT_EQ(on(0, "pgrep -f '[c]at " + never + "$'").code, 1) << "its whole group is gone";
}

// Without a descriptor to be had for watching a script its end is seen all the same.
TEST_F(KestactlSave, FewDescriptorsDoNotMakeItHang)
{
    define(script_line("pre-script", "true", 1));
    for (int limit = 5; limit <= 14; ++limit) {
        const Ran saved = on(0, "ulimit -n " + std::to_string(limit) + "; exec timeout 60 kestactl save network");
        EXPECT_NE(saved.code, 124) << limit;
    }
}

TEST_F(KestactlSave, SignalStopsTheStepsAndNotWhatUndoesThem)
{
    define(script_line("pre-script", "kill -TERM $PPID; mkfifo /opt/never; cat /opt/never", 1) +
           script_line("post-script", "sleep 1; " + note("after"), 1));
    expect_refusal(ctl(0, "save network"), 4, "ended by signal 15");
    EXPECT_EQ(file_on(0, log_file), "after\n") << "longer than it takes to notice a signal";
    EXPECT_EQ(on(0, "ls -A /opt/kesta_sys/bakup").out, "");
}

TEST_F(KestactlSave, WhatCanNotBeSavedIsRefusedFirst)
{
    expect_refusal(ctl(0, "save other"), 1, "no usable");
    EXPECT_EQ(ctl(0, "save ../x").code, 2);
    for (const char *path : {"/etc/../etc/hosts", "etc/hosts", "/etc/app/", "/", "/etc/./hosts", "/etc//hosts",
                             "//etc/hosts", "/etc/.hosts.kesta-new/a"}) {
        define("", std::string("<file path=\"") + path + "\"/>");
        expect_refusal(ctl(0, "save network"), 1, "can't be archived");
    }
    define("", "<file path=\"/etc/app/gone\"/>");
    expect_refusal(ctl(0, "save network"), 1, "There is no /etc/app/gone");
    EXPECT_EQ(number("numbering-version"), 0);
}

TEST_F(KestactlSave, NothingIsLeftThatOthersCanWriteToWhateverTheUmaskIs)
{
    succeed("umask 0; kestactl save network && kestactl accept && kestactl script samefiles CNT1 /etc/app/one");
    EXPECT_EQ(on(0, "find /etc/kesta_sys /opt/kesta_sys /var/run/kesta_sys -type f -perm /022").out,
              "/var/run/kesta_sys/tmp/environment\n")
        << "the local lock is for the commands of every user";
}

TEST_F(KestactlSave, LocksKeepOthersAway)
{
    ASSERT_EQ(ctl(1, "lock take").code, 0);
    const Ran held = ctl(0, "save network");
    EXPECT_EQ(held.code, 3) << held.err;
    EXPECT_THAT(held.err, HasSubstr("CNT1"));
    EXPECT_EQ(file_on(0, log_file), "") << "no script was run";
    ASSERT_EQ(ctl(1, "lock release --force").code, 0);
    const Ran local = on(0, "kestactl lock local environment -- kestactl save network");
    EXPECT_EQ(local.code, 3) << local.err;
    EXPECT_EQ(ctl(0, "save network").code, 0);
}

TEST_F(KestactlSave, LockThatWasClearedIsNoticedBeforePublishing)
{
    define(script_line("pre-script", "kestactl lock release --force", 1));
    const Ran lost = ctl(0, "save network");
    EXPECT_EQ(lost.code, 3) << lost.err;
    EXPECT_THAT(lost.err, HasSubstr("not ours any more"));
    EXPECT_EQ(number("numbering-version"), 0);
    EXPECT_EQ(on(0, "ls " + flash_backup).code, 2);
}

TEST_F(KestactlSave, SlotThatCanNotBeWrittenLeavesTheRestWhole)
{
    ASSERT_EQ(ctl(0, "save network").code, 0);
    const std::string before = slot("kesta_backup0");
    write_file(host_path(0, "etc/app/one"), "changed\n");
    write_file(host_path(0, "opt/faults"), "sb_write 2 once fail 28\n");
    const Ran failed = on(0, "KESTA_PLATFORM_FAULT_FILE=/opt/faults kestactl save network");
    EXPECT_EQ(failed.code, 4) << failed.out;
    EXPECT_EQ(ctl(0, "lock check").code, 0);
    const Ran again = ctl(0, "save network");
    EXPECT_EQ(again.code, 0) << again.err;
    EXPECT_EQ(slot("kesta_backup0"), file_on(0, flash_backup));
    EXPECT_NE(slot("kesta_backup0"), before);
}

TEST_F(KestactlSave, DryRunsWriteNothing)
{
    ASSERT_EQ(ctl(0, "save network").code, 0);
    const auto untouched = snapshot();
    for (const std::string command : {"save network", "accept"}) {
        const Ran planned = ctl(0, command + " --dry-run");
        EXPECT_EQ(planned.code, 0) << planned.err;
        EXPECT_THAT(planned.out, HasSubstr("kesta_backup"));
        EXPECT_TRUE(snapshot() == untouched) << command;
    }
    EXPECT_THAT(ctl(0, "save network --dry-run").out, HasSubstr("run " + note("after")));
}

TEST_F(KestactlSave, WhatRestoreWouldNotTakeIsRefusedWithItsPath)
{
    const std::vector<std::pair<std::string, std::string>> refused{
        {"mkfifo /etc/app/more/pipe", "/etc/app/more/pipe is neither a file nor a folder nor a link"},
        {"python3 -c 'import socket; socket.socket(socket.AF_UNIX).bind(\"/etc/app/more/sock\")'",
         "/etc/app/more/sock is neither a file nor a folder nor a link"},
        {"mknod /etc/app/more/null c 1 3", "/etc/app/more/null is neither a file nor a folder nor a link"},
        {"echo x > /etc/app/more/.two.kesta-new", "/etc/app/more/.two.kesta-new has a name"},
        {"echo x > /etc/app/more/prog; chmod 4755 /etc/app/more/prog", "/etc/app/more/prog runs with"},
        {"ln -s up/../../one /etc/app/more/climbs", "/etc/app/more/climbs leads out of the group"},
        {"mkdir /etc/app/more/f; ln -s / /etc/app/more/f/root", "/etc/app/more/f/root leads out of the group"}};
    for (const auto &[make, because] : refused) {
        succeed(make);
        expect_refusal(ctl(0, "save network"), 1, because);
        expect_refusal(ctl(0, "save network --dry-run"), 1, because);
        succeed("rm -r /etc/app/more/[!t]* /etc/app/more/.t* 2> /dev/null || true");
    }
    EXPECT_EQ(on(0, "ls -A /opt/kesta_sys/bakup").out, "");
    EXPECT_EQ(number("numbering-version"), 0) << "no number is spent";
    EXPECT_EQ(ctl(0, "save network").code, 0);
}

TEST_F(KestactlSave, WhatIsSavedIsRestoredWhole)
{
    const std::string names =
        "cd /etc/app/more; for n in 100 150 244 245 250 255; do "
        "echo $n > $(printf '%0*d' $n 0); done; "
        "d=$(printf '%0200d' 1); mkdir -p $d/$d/$d; echo deep > $d/$d/$d/file; ";
    succeed(names +
            "printf 'odd\\n' > \"$(printf 'new\\nline \\303\\244 \\377 *')\"; ln two second; "
            "truncate -s 70000 holes; echo end >> holes; ln -s ../one up; ln -s $d/$d/$d/file far; "
            "ln -s /etc/app/one absolute; : > empty; chmod 600 empty; chown 4711:4712 empty");
    const std::string shown =
        "cd /etc/app && find . ! -type d -printf '%P %m %U %G %n %l %s\\n' | sort; "
        "find . -type d -printf '%P %m %U %G\\n' | sort; "
        "find . -type f -print0 | sort -z | xargs -0 sha256sum";
    const std::string before = on(0, shown).out;
    ASSERT_EQ(ctl(0, "save network").code, 0);
    succeed("rm -r /etc/app");
    const Ran restored = ctl(0, "restore network");
    ASSERT_EQ(restored.code, 0) << restored.err;
    EXPECT_EQ(on(0, shown).out, before);
    EXPECT_EQ(ctl(0, "--json restore network").json().at("result").at("replaced"), json::array());
    EXPECT_EQ(on(0, "tar -tjf " + flash_backup + " > /dev/null").code, 0) << "for other programs as well";
}

TEST_F(KestactlSave, SecondNameIsRestoredByItselfAsWell)
{
    succeed(
        "ln /etc/app/more/two /etc/app/more/second && kestactl save network && "
        "rm /etc/app/more/second && kestactl restore network --only /etc/app/more/second");
    EXPECT_EQ(file_on(0, "/etc/app/more/second"), "two\n");
    succeed(
        "echo other > /etc/app/more/two && rm /etc/app/more/second && "
        "kestactl restore network --only /etc/app/more/second");
    EXPECT_EQ(file_on(0, "/etc/app/more/second"), "two\n");
    EXPECT_EQ(file_on(0, "/etc/app/more/two"), "other\n");
}

TEST_F(KestactlSave, PathThatIsNamedTwiceIsSavedOnce)
{
    define("", "<file path=\"/etc/app/more/two\"/><file path=\"/etc/app/more\"/><file path=\"/etc/app/one\"/>");
    ASSERT_EQ(ctl(0, "save network").code, 0);
    EXPECT_EQ(on(0, "tar -tjf " + flash_backup + " | grep -c two").out, "1\n");
    succeed("rm -r /etc/app && kestactl restore network");
    EXPECT_EQ(file_on(0, "/etc/app/more/two"), "two\n");
}

// A user of the controller who owns a folder of the group, and swaps what is in it as fast as can be.
class KestactlRace : public KestactlSave {
protected:
    KestactlRace()
    {
        define("");
        succeed(
            "mkdir -m 700 /opt/private && echo secret > /opt/private/two && chmod 600 /opt/private/two && "
            "mkdir /etc/app/more/sub && echo mine > /etc/app/more/sub/two && chown -R nobody /etc/app/more");
        outside_ = on(0, look_outside).out;
    }
    // Runs commands on the controller while the swapping goes on.
    void while_swapping(const std::string &swap, const std::string &commands) const
    {
        write_file(host_path(0, "opt/swap.py"),
                   "import os\nos.setuid(65534)\nos.chdir('/etc/app/more')\nopen('ready', 'w')\n"
                   "while True:\n    try:\n" +
                       swap + "    except OSError:\n        pass\n");
        (void)on(0, "python3 /opt/swap.py & swapper=$!; while [ ! -e /etc/app/more/ready ]; do :; done; " + commands +
                        "; kill $swapper");
    }
    void expect_private_untouched() const { EXPECT_EQ(on(0, look_outside).out, outside_); }

private:
    static inline const std::string look_outside =
        "find /opt/private /etc/shadow -printf '%p %m %U %G %s\\n'; cat /opt/private/two";
    std::string outside_;
};

TEST_F(KestactlRace, SubfolderThatIsALinkBringsNothingIntoTheArchive)
{
    define("", "<file path=\"/etc/app/more/sub/two\"/>");
    for (const std::string owner : {"nobody", "root"}) {
        succeed("cd /etc/app/more && rm -rf sub && ln -s /opt/private sub && chown -h " + owner + " sub");
        expect_refusal(ctl(0, "save network"), 1, "/etc/app/more/sub is no folder of root's");
    }
    EXPECT_EQ(on(0, "ls " + flash_backup).code, 2);
    while_swapping(
        "        os.rename('sub', 'aside'); os.symlink('/opt/private', 'sub')\n"
        "        os.unlink('sub'); os.rename('aside', 'sub')\n",
        "for i in 1 2 3 4 5 6 7 8; do kestactl save network; "
        "cp " +
            flash_backup + " /opt/saved.$i; done");
    EXPECT_EQ(on(0, "for a in /opt/saved.*; do tar -xjOf $a; done | grep secret").out, "");
    expect_private_untouched();
}

TEST_F(KestactlRace, StagedFileThatBecomesALinkGivesNothingAway)
{
    succeed("head -c 300000 /dev/urandom > /etc/app/more/two && kestactl save network");
    while_swapping("        os.unlink('.two.kesta-new'); os.symlink('/opt/private/two', '.two.kesta-new')\n",
                   "for i in 1 2 3 4 5 6 7 8 9 10; do rm -f /etc/app/more/two; kestactl restore network; done");
    expect_private_untouched();
}

TEST_F(KestactlRace, SubfolderThatBecomesALinkIsNotWrittenThrough)
{
    succeed("kestactl save network");
    while_swapping(
        "        open('sub/two', 'w')\n"
        "        os.rename('sub', 'aside'); os.symlink('/opt/private', 'sub')\n"
        "        os.unlink('sub'); os.rename('aside', 'sub')\n",
        "for i in $(seq 30); do echo x > /etc/app/one; "
        "kestactl restore network; done");
    expect_private_untouched();
}

// --------------------------------------------------------------------------- all places at once

class KestactlVerify : public KestactlSave {
protected:
    KestactlVerify()
    {
        EXPECT_EQ(ctl(0, "save network").code, 0);
        EXPECT_EQ(ctl(0, "accept").code, 0);
    }
    // The subjects that are not in order, by name.
    std::map<std::string, json> bad() const
    {
        const Ran run = ctl(0, "--json verify");
        std::map<std::string, json> found;
        const json answer = run.json();
        EXPECT_EQ(answer.at("schema_version"), 2);
        EXPECT_EQ(answer.at("result").at("subjects").size(), 9u);
        for (const json &subject : answer.at("result").at("subjects")) {
            if (subject.at("state") != "agree" && subject.at("state") != "absent") {
                found[subject.at("subject")] = subject;
            }
        }
        EXPECT_EQ(answer.at("result").at("findings"), found.size());
        EXPECT_EQ(run.code, found.empty() ? 0 : 1);
        return found;
    }
    // What is advised for a subject, run as it is given.
    void mend(const std::string &subject) const
    {
        const auto found = bad();
        ASSERT_TRUE(found.contains(subject));
        for (const json &command : found.at(subject).at("mend")) {
            std::string words;
            for (const json &word : command) {
                words += word.get<std::string>() + " ";
            }
            const Ran ran = on(0, words);
            EXPECT_EQ(ran.code, 0) << words << ran.err;
        }
        EXPECT_FALSE(bad().contains(subject)) << "the command that was named has mended it";
    }
};

TEST_F(KestactlVerify, SavedAndAcceptedEnvironmentAgreesEverywhere)
{
    const Ran verified = ctl(0, "verify");
    EXPECT_EQ(verified.code, 0) << verified.out << verified.err;
    EXPECT_THAT(verified.out, HasSubstr("All places agree."));
    EXPECT_EQ(verified.err, "") << "an identity that nobody has set is nothing to complain of";
    EXPECT_TRUE(bad().empty());
}

TEST_F(KestactlVerify, EachDisagreementHasTheCommandThatMendsIt)
{
    succeed("echo damaged > " + flash_backup);
    const json damaged = bad().at("backup");
    EXPECT_EQ(damaged.at("state"), "damaged");
    EXPECT_EQ(damaged.at("right"), "slot:kesta_backup0");
    EXPECT_EQ(damaged.at("places")[0].at("reason"), "it is not what bzip2 makes");
    mend("backup");
    fs::remove(dir / "shared/sysback/kesta_backup0");
    EXPECT_EQ(bad().at("backup").at("right"), "flash");
    mend("backup");
    fs::remove(dir / "shared/sysback/kesta_backup1");
    EXPECT_EQ(bad().at("accepted").at("right"), "flash");
    mend("accepted");
    EXPECT_TRUE(bad().empty());

    ASSERT_EQ(ctl(0, "version set flash 9").code, 0);
    mend("versions");

    ASSERT_EQ(ctl(0, "nv write numbering-version 5 --memory-only").code, 0);
    EXPECT_THAT(bad().at("mirror").at("text"), HasSubstr("1 of 12"));
    EXPECT_EQ(bad().at("mirror").at("right"), "memory") << "numbers are only raised";
    mend("mirror");
    ASSERT_EQ(ctl(0, "nv clear --yes").code, 0);
    EXPECT_THAT(bad().at("mirror").at("text"), HasSubstr("Right is the disk"));
    mend("slots");
    mend("mirror");
    mend("versions");  // the accepted version is not mirrored, and known by the archive
    EXPECT_TRUE(bad().empty());

    ASSERT_EQ(ctl(0, "identity set --wwn 500000E0D0000001 --in vpd").code, 0);
    EXPECT_THAT(bad().at("identity").at("text"), HasSubstr("eeprom"));
    ASSERT_EQ(ctl(0, "identity set --wwn 500000E0D0000001").code, 0);
    EXPECT_TRUE(bad().empty());

    ASSERT_EQ(ctl(1, "lock take").code, 0);
    EXPECT_THAT(bad().at("locks").at("text"), HasSubstr("CNT1"));
    ASSERT_EQ(ctl(1, "lock release --force").code, 0);
}

TEST_F(KestactlVerify, WhatIsUnfinishedIsNamed)
{
    write_file(host_path(0, "etc/app/one"), "changed\n");
    write_file(host_path(0, "opt/faults"), "nv_write 8 once kill\n");
    EXPECT_NE(on(0, "KESTA_PLATFORM_FAULT_FILE=/opt/faults kestactl save network").code, 0);
    const auto found = bad();
    EXPECT_TRUE(found.count("locks") == 1) << "its lock is left, and the command to clear it";
    EXPECT_TRUE(found.at("locks").at("mend").is_null()) << "nothing tells whether its holder lives";
    EXPECT_THAT(found.at("locks").at("text"), HasSubstr("kestactl lock release"));
}

TEST_F(KestactlVerify, FixMendsWhatItShowsAndKeepsWhatItReplaces)
{
    succeed("echo later > /etc/app/one && kestactl save network");
    const std::string accepted = file_on(0, flash_accept);
    const std::string backup = file_on(0, flash_backup);
    succeed("kestactl restore network --switch-only --from accept");
    fs::remove(dir / "shared/sysback/kesta_backup1");
    write_file(dir / "shared/sysback/kesta_sysback", std::string("garbage") + std::string(25, '\0'));
    succeed("head -c 20 " + flash_accept + " > /opt/kesta_sys/bakup/accept.tar.Z.new");

    const Ran shown = ctl(0, "verify --fix --dry-run");
    EXPECT_THAT(shown.out, AllOf(HasSubstr("Nothing is changed"), HasSubstr("kestactl copy archive slot:kesta_backup0 "
                                                                            "flash:backup --sha256 ")));
    expect_refusal(ctl(0, "verify --fix"), 2, "Nobody is there to answer");
    ASSERT_EQ(ctl(1, "lock take").code, 0);
    EXPECT_EQ(ctl(0, "verify --fix --yes").code, 3);
    ASSERT_EQ(ctl(1, "lock release --force").code, 0);
    EXPECT_EQ(file_on(0, flash_backup), accepted) << "so far nothing was changed";

    const Ran fixed = ctl(0, "--json verify --fix --yes");
    EXPECT_EQ(fixed.code, 0) << fixed.out << fixed.err;
    const json result = fixed.json().at("result");
    EXPECT_EQ(result.at("findings"), 0);
    EXPECT_GE(result.at("mended").size(), 3u);
    for (const json &one : result.at("mended")) {
        EXPECT_EQ(one.at("exit"), 0) << one;
    }
    EXPECT_EQ(file_on(0, flash_backup), backup);
    EXPECT_EQ(slot("kesta_backup0"), backup);
    EXPECT_EQ(slot("kesta_backup1"), accepted);
    EXPECT_THAT(ctl(0, "verify --fix --yes").out, HasSubstr("All places agree."));
    EXPECT_EQ(on(0, "ls /opt/kesta_sys/bakup/*.new").code, 2);
}

// ---------------------------------------------------------------------------------- copying verbs

TEST_F(KestactlSave, CopyingVerbsTestTheirSourceFirst)
{
    define("");
    succeed("kestactl save network");
    const std::string good = slot("kesta_backup0");
    succeed("head -c 100 " + flash_backup + " > /opt/cut && cp /opt/cut " + flash_backup +
            " && cp /opt/cut /var/run/kesta_sys/tmp/backup.tar.Z");
    expect_refusal(ctl(0, "copy cntbackup2backup"), 1, "is damaged, and is copied over nothing");
    expect_refusal(ctl(0, "copy merge-file2accept"), 1, "is damaged, and is copied over nothing");
    EXPECT_EQ(slot("kesta_backup0"), good);
    EXPECT_EQ(ctl(0, "copy cntbackup2backup --force").code, 0) << "who means it";
    write_file(host_path(0, "etc/whole"), good);
    succeed("cp /etc/whole " + flash_backup);
    expect_refusal(ctl(0, "restore network --switch-only"), 1, "holds a damaged archive");
    EXPECT_EQ(file_on(0, flash_backup), good);
}

TEST_F(KestactlSave, OlderVersionIsNotMergedOverTheAcceptedOne)
{
    define("");
    succeed("kestactl save network && cp " + flash_backup +
            " /opt/old && echo two > /etc/app/one && "
            "kestactl save network && kestactl accept && cp /opt/old /var/run/kesta_sys/tmp/backup.tar.Z");
    const std::string newer = slot("kesta_backup1");
    expect_refusal(ctl(0, "copy merge-file2accept"), 1,
                   "The merge cache holds version 1, and slot kesta_backup1 the newer accepted version 2, whole");
    EXPECT_EQ(slot("kesta_backup1"), newer);
    EXPECT_EQ(ctl(0, "copy merge-file2accept --force").code, 0) << "who means it";
    // What a merge has made is recorded nowhere, and is what the flow is for.
    succeed("cd /opt && tar -cjf /var/run/kesta_sys/tmp/backup.tar.Z -C / etc/app/one");
    EXPECT_EQ(ctl(0, "copy merge-file2accept").code, 0);
}

TEST_F(KestactlSave, OlderVersionIsNotCopiedOverANewerOne)
{
    define("");
    succeed("kestactl save network && cp " + flash_backup +
            " /opt/old && echo two > /etc/app/one && "
            "kestactl save network && cp /opt/old " +
            flash_backup + " && kestactl version set flash 1");
    const std::string newer = slot("kesta_backup0");
    expect_refusal(ctl(0, "copy cntbackup2backup"), 1, "the newer version 2, whole");
    EXPECT_EQ(slot("kesta_backup0"), newer);
    succeed("kestactl version set backup 2147483647");
    EXPECT_EQ(ctl(0, "copy cntbackup2backup --dry-run").code, 0) << "1 comes behind the highest number";
    succeed("kestactl version set backup 2 && kestactl copy cntbackup2backup --force");
    EXPECT_NE(slot("kesta_backup0"), newer);
}

TEST_F(KestactlSave, LongerLeftoverIsNotMixedIntoTheFlashCopy)
{
    define("");
    succeed(
        "kestactl save network && head -c 100000 /dev/urandom > /opt/kesta_sys/bakup/tmp.tar.Z && "
        "kestactl restore network --switch-only");
    EXPECT_EQ(file_on(0, flash_backup), slot("kesta_backup0")) << "without the tail of what was left behind";
}

// ------------------------------------------------------------------------- what verify must not advise

TEST_F(KestactlVerify, DamagedSlotIsNeverTheRightOne)
{
    const std::string good = slot("kesta_backup1");
    write_file(dir / "shared/sysback/kesta_backup1", good.substr(0, 100));
    const json found = bad().at("accepted");
    EXPECT_EQ(found.at("right"), "flash");
    EXPECT_EQ(found.at("places")[0].at("version"), 1);
    EXPECT_EQ(found.at("places")[1].at("state"), "damaged");
    EXPECT_EQ(found.at("places")[1].at("reason"), "cut short");
    mend("accepted");
    EXPECT_EQ(slot("kesta_backup1"), good);

    succeed("echo later > /etc/app/one && kestactl save network");
    succeed("rm -r /opt/kesta_sys/bakup/generations && head -c 100 " + flash_accept + " > /opt/cut && cp /opt/cut " +
            flash_accept);
    write_file(dir / "shared/sysback/kesta_backup1", good.substr(0, 100));
    const json lost = bad().at("accepted");
    EXPECT_TRUE(lost.at("mend").is_null());
    EXPECT_TRUE(lost.at("right").is_null());
    EXPECT_THAT(lost.at("text"), HasSubstr("No whole copy of what is in force is left here"));
}

TEST_F(KestactlVerify, AcceptedOneIsNotReplacedByAnotherVersion)
{
    succeed("echo later > /etc/app/one && kestactl save network");
    const std::string accepted = file_on(0, flash_accept);
    fs::remove(dir / "shared/sysback/kesta_backup1");
    mend("accepted");
    EXPECT_EQ(slot("kesta_backup1"), accepted);
    EXPECT_EQ(file_on(0, flash_accept), accepted);
}

TEST_F(KestactlVerify, SlotThatCanNotBeReadIsNoAbsentOne)
{
    write_file(host_path(0, "opt/faults"), "sb_open 1 on fail 5\n");
    const Ran verified = on(0, "KESTA_PLATFORM_FAULT_FILE=/opt/faults kestactl --json verify");
    EXPECT_EQ(verified.code, 4) << "no answer is no pass";
    EXPECT_EQ(on(0, "KESTA_PLATFORM_FAULT_FILE=/opt/faults kestactl status --archives").code, 4);
    const json answer = verified.json();
    for (const json &subject : answer.at("result").at("subjects")) {
        if (subject.at("subject") == "backup" || subject.at("subject") == "accepted") {
            EXPECT_EQ(subject.at("state"), "unreadable");
            EXPECT_EQ(subject.at("places")[1].at("state"), "unreadable");
            EXPECT_TRUE(subject.at("mend").is_null());
        }
    }
}

TEST_F(KestactlVerify, SwitchToTheAcceptedOneDoesNotCostTheBackup)
{
    succeed("echo later > /etc/app/one && kestactl save network");
    const std::string backup = slot("kesta_backup0");
    succeed("kestactl restore network --switch-only --from accept");
    EXPECT_EQ(bad().at("backup").at("right"), "slot:kesta_backup0");
    mend("backup");
    EXPECT_EQ(slot("kesta_backup0"), backup);
    EXPECT_EQ(file_on(0, flash_backup), backup);
    EXPECT_TRUE(bad().empty());
}

// Whatever stands in the place of the version, of an archive or of settings, a command that holds locks ends.
TEST_F(KestactlSave, WhatIsNoPlainFileIsNotWaitedFor)
{
    define("");
    for (const auto &[path, verb, code, text] :
         {std::tuple("/etc/kesta_sys/version", "save network", 4, "kestactl: "),
          std::tuple("/opt/kesta_sys/bakup/backup.tar.Z", "copy cntbackup2tmp", 4, "is not a file"),
          std::tuple("/etc/kesta/archives.conf", "save network", 1, "/etc/kesta/archives.conf is a FIFO"),
          std::tuple("/etc/kesta/remote.conf", "status --all", 1, "/etc/kesta/remote.conf is a FIFO")}) {
        succeed(std::string("rm -f ") + path + " && mkfifo " + path);
        expect_refusal(on(0, std::string("timeout -s KILL 20 kestactl ") + verb), code, text);
        succeed(std::string("rm -f ") + path);
    }
}
