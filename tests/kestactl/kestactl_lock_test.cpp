// kestactl version and kestactl lock, on the controllers of a lab.
#include <signal.h>
#include <unistd.h>

#include "lab_fixture.h"

using namespace test;
using nlohmann::json;
using testing::HasSubstr;

namespace {

std::string trimmed(std::string text)
{
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

}  // namespace

class KestactlLock : public LabTest {
protected:
    std::string take(int controller, const std::string &options = "") const
    {
        const Ran taken = ctl(controller, "lock take " + options);
        EXPECT_EQ(taken.code, 0) << taken.err;
        return trimmed(taken.out);
    }
    json locks() const
    {
        const Ran checked = ctl(3, "--json lock check");
        const json found = checked.json().at("result").at("locks");
        EXPECT_EQ(checked.code, found.empty() ? 0 : 1);
        return found;
    }
    // NV memory and the system backup area, but for the journal of the one.
    std::map<std::string, std::string> snapshot_of_shared() const
    {
        std::map<std::string, std::string> files;
        for (const auto &entry : fs::recursive_directory_iterator(dir / "shared")) {
            if (entry.is_regular_file() && entry.path().extension() != ".jnl") {
                files[entry.path()] = read_file(entry.path());
            }
        }
        return files;
    }
    // One sentence that says what is wrong, another that says what to do.
    static void expect_refused(const Ran &ran, int code, const std::string &what)
    {
        EXPECT_EQ(ran.code, code) << ran.out << ran.err;
        EXPECT_TRUE(ran.out.empty()) << ran.out;
        EXPECT_THAT(ran.err, HasSubstr(what));
        EXPECT_EQ(std::count(ran.err.begin(), ran.err.end(), '\n'), 2) << ran.err;
    }
};

TEST_F(KestactlLock, CheckSaysWhoHoldsWhatAndHowToClearIt)
{
    EXPECT_TRUE(locks().empty());
    EXPECT_EQ(ctl(0, "lock check").out, "No command lock is held.\n");
    const std::string identifier = take(1, "--group network");
    const json lock = locks().at(0);
    EXPECT_EQ(lock.at("controller"), 1);
    EXPECT_EQ(lock.at("type"), "type1");
    EXPECT_EQ(lock.at("identifier"), identifier);
    EXPECT_EQ(lock.at("group"), "network");
    EXPECT_EQ(lock.at("looks_alive"), true);
    const Ran text = ctl(2, "lock check");
    EXPECT_EQ(text.code, 1);
    EXPECT_THAT(text.out, HasSubstr("CNT1 holds a type-1 lock since "));
    EXPECT_THAT(text.out, HasSubstr("for group network, identifier " + identifier));
    EXPECT_THAT(ctl(0, "status").out, HasSubstr("held by CNT1 (type1, identifier " + identifier));
    const std::string clear = lock.at("clear_with");
    EXPECT_EQ(on(3, clear).code, 0) << "the command that it names clears it";
    EXPECT_TRUE(locks().empty());
}

TEST_F(KestactlLock, OldLockMayBeDead)
{
    const std::string identifier = take(1);
    // The slot as a holder of long ago left it.
    std::fstream image(dir / "shared/nv/region2.img", std::ios::in | std::ios::out | std::ios::binary);
    image.seekp(200 + 24 + 8);
    const std::int64_t old[2] = {1000, 1600};
    image.write(reinterpret_cast<const char *>(old), sizeof(old));
    image.close();
    const json lock = locks().at(0);
    EXPECT_EQ(lock.at("looks_alive"), false);
    EXPECT_EQ(lock.at("since"), "1970-01-01T00:16:40Z");
    EXPECT_EQ(on(0, lock.at("clear_with").get<std::string>()).code, 0);
}

TEST_F(KestactlLock, EveryRefusalNamesTheHolder)
{
    const std::string identifier = take(1, "--group network");
    const std::string holder = "CNT1 holds a type-1 lock since ";
    for (const std::string command :
         {"lock take", "lock take --type 2", "lock take --type 3 -- true", "lock take --dry-run"}) {
        expect_refused(ctl(0, command), 3, holder);
    }
    const Ran waited = ctl(0, "lock take --wait 1");
    EXPECT_EQ(waited.code, 3);
    EXPECT_THAT(waited.err, HasSubstr(" s left: " + holder)) << "progress";
    EXPECT_EQ(ctl(0, "lock wait").code, 3);
    const json error = ctl(0, "--json lock take").json().at("error");
    EXPECT_EQ(error.at("code"), "locked");
    EXPECT_THAT(error.at("message").get<std::string>(), HasSubstr(holder));
    expect_refused(ctl(1, "lock release 1"), 1, "The lock carries another identifier: " + holder);
    expect_refused(ctl(0, "lock release " + identifier), 1, "CNT0 holds no lock.");
    EXPECT_EQ(locks().size(), 1u) << "none of this changed anything";
}

TEST_F(KestactlLock, SuspendResumeConvertRelease)
{
    const std::string identifier = take(0, "--group network");
    expect_refused(ctl(0, "lock resume " + identifier), 1, "is not suspended");
    EXPECT_EQ(ctl(0, "lock suspend " + identifier).code, 0);
    EXPECT_EQ(locks().at(0).at("type"), "suspended");
    expect_refused(ctl(0, "lock suspend " + identifier), 1, "is suspended");
    expect_refused(ctl(0, "lock convert " + identifier), 1, "Only a type-1 lock");
    expect_refused(ctl(1, "lock take"), 3, "CNT0 holds a suspended lock");
    const std::string shared = take(1, "--type 2");
    expect_refused(ctl(0, "lock resume " + identifier), 3, "CNT1 holds a type-2 lock");
    EXPECT_EQ(ctl(1, "lock release " + shared).code, 0);
    EXPECT_EQ(ctl(0, "lock resume " + identifier).code, 0);
    EXPECT_EQ(ctl(0, "lock convert " + identifier).code, 0);
    EXPECT_EQ(locks().at(0).at("type"), "backup");
    EXPECT_EQ(locks().at(0).at("identifier"), identifier);
    EXPECT_EQ(ctl(0, "lock release " + identifier).code, 0);
    EXPECT_TRUE(locks().empty());
}

TEST_F(KestactlLock, CommandRunsUnderTheLockAndItsExitCodeComesThrough)
{
    const Ran ran = ctl(0, "lock take --type 3 -- sh -c 'kestactl lock check; exit 7'");
    EXPECT_EQ(ran.code, 7);
    EXPECT_THAT(ran.out, HasSubstr("CNT0 holds a type-3 lock"));
    EXPECT_TRUE(locks().empty());
    const Ran killed = ctl(0, "lock take -- sh -c 'kill -9 $$'");
    EXPECT_EQ(killed.code, 128 + 9);
    EXPECT_TRUE(locks().empty());
    const Ran in_json = ctl(0, "--json lock take -- sh -c 'echo noise; exit 3'");
    EXPECT_EQ(in_json.code, 3);
    EXPECT_EQ(in_json.json().at("result").at("exit_code"), 3);
    EXPECT_EQ(in_json.err, "noise\n");
    expect_refused(ctl(0, "lock take -- no-such-command"), 2, "can't be run");
    EXPECT_TRUE(locks().empty());
}

TEST_F(KestactlLock, SignalsReachTheCommandAndTheLockIsReleased)
{
    for (const std::string signal : {"TERM", "INT", "HUP"}) {
        const Ran ran = on(0, "kestactl lock take -- sh -c 'kill -" + signal + " $PPID; while :; do sleep 1; done'");
        EXPECT_EQ(ran.code, 128 + (signal == "TERM"  ? SIGTERM
                                   : signal == "INT" ? SIGINT
                                                     : SIGHUP))
            << signal << ran.err;
        EXPECT_TRUE(locks().empty()) << signal;
    }
}

TEST_F(KestactlLock, EverySignalThatEndsAProgramLetsTheLockGo)
{
    std::vector<int> signals{SIGHUP,  SIGINT,    SIGQUIT, SIGPIPE, SIGALRM, SIGTERM, SIGUSR1,  SIGUSR2,      SIGXCPU,
                             SIGXFSZ, SIGVTALRM, SIGPROF, SIGIO,   SIGPWR,  SIGABRT, SIGRTMIN, SIGRTMIN + 7, SIGRTMAX};
    for (const int number : signals) {
        const std::string command = " -- /bin/sh -c 'kill -" + std::to_string(number) + " $PPID; exec sleep 60'";
        EXPECT_EQ(ctl(0, "lock take" + command).code, 128 + number);
        EXPECT_TRUE(locks().empty()) << number;
        EXPECT_EQ(ctl(0, "lock local nightly" + command).code, 128 + number);
    }
}

TEST_F(KestactlLock, IdentifierThatCanNotBeWrittenIsNoLock)
{
    const Ran full = on(0, "kestactl lock take > /dev/full");
    EXPECT_EQ(full.code, 4) << full.err;
    EXPECT_TRUE(locks().empty());
    EXPECT_EQ(on(0, "kestactl --json lock take > /dev/full").code, 4);
    EXPECT_TRUE(locks().empty());
    EXPECT_NE(on(0, "kestactl --help > /dev/full").code, 0);
    EXPECT_NE(on(0, "kestactl lock --help > /dev/full").code, 0);
    EXPECT_NE(shell(lab() + " --help > /dev/full").code, 0);
}

TEST_F(KestactlLock, ParentThatIgnoresItsChildrenIsNoHindrance)
{
    const std::string ignoring = "timeout 60 env --ignore-signal=CHLD kestactl ";
    EXPECT_EQ(on(0, ignoring + "lock take -- sh -c 'exit 7'").code, 7);
    EXPECT_EQ(on(0, ignoring + "lock local nightly -- sh -c 'exit 7'").code, 7);
    EXPECT_EQ(on(0, ignoring + "run -- true").code, 0);
    EXPECT_TRUE(locks().empty());
}

TEST_F(KestactlLock, SignalEndsTheWaiting)
{
    take(1);
    // The signal comes when the first line of progress has been read.
    const Ran ran = on(0,
                       "mkfifo /tmp/progress; exec 3<> /tmp/progress; "
                       "kestactl lock take --wait 600 2>&3 & "
                       "read line <&3; echo $line; kill -TERM $!; wait $!");
    EXPECT_EQ(ran.code, 128 + SIGTERM);
    EXPECT_THAT(ran.out, HasSubstr(", 600 s left: CNT1 holds"));
    EXPECT_EQ(locks().size(), 1u);
}

TEST_F(KestactlLock, WaitingGetsTheLockWhenItIsReleased)
{
    const std::string identifier = take(1);
    const Ran ran = on(0,
                       "mkfifo /tmp/progress; exec 3<> /tmp/progress; "
                       "kestactl lock take --wait 600 2>&3 > /tmp/taken & "
                       "read line <&3; kestactl lock release " +
                           identifier + " --controller CNT1; wait $!; cat /tmp/taken");
    EXPECT_EQ(ran.code, 0) << ran.err;
    EXPECT_EQ(locks().at(0).at("controller"), 0);
    EXPECT_EQ(ctl(1, "lock wait --wait 0").code, 3);
    EXPECT_EQ(ctl(1, "lock release --force --controller CNT0").code, 0);
    EXPECT_EQ(ctl(1, "lock wait").out, "No command lock is held.\n");
}

TEST_F(KestactlLock, WrongUsageIsTwo)
{
    for (const std::string command :
         {"lock", "lock take --type 4", "lock take --group 'a b'", "lock take --wait -1", "lock release",
          "lock release abc", "lock release 1 --force", "lock release 1 --controller CNT4", "lock suspend",
          "lock local", "lock local x", "lock local ../x -- true", "lock local .x -- true", "version set backup -1",
          "version set backup x", "version set backup 2147483648", "version set nothing 1",
          "version set backup 1 --controller CNT1", "version set current 1 --controller CNT9"}) {
        const Ran ran = ctl(0, command);
        EXPECT_EQ(ran.code, 2) << command;
        EXPECT_TRUE(ran.out.empty()) << command;
        EXPECT_FALSE(ran.err.empty()) << command;
    }
}

TEST_F(KestactlLock, LocalLockIsHeldForTheCommand)
{
    const Ran ran = ctl(0,
                        "lock local nightly -- sh -c 'kestactl lock local nightly -- true; "
                        "echo $?; kestactl lock local other -- true; echo $?; exit 5'");
    EXPECT_EQ(ran.code, 5);
    EXPECT_EQ(ran.out, "3\n0\n");
    EXPECT_THAT(ran.err, HasSubstr("The local lock nightly can't be had: process "));
    EXPECT_THAT(ran.err, HasSubstr("(kestactl) holds it."));
    EXPECT_EQ(ctl(0, "lock local nightly -- true").code, 0);
}

TEST_F(KestactlLock, VersionsAreShownSetHandedOutAndCompared)
{
    EXPECT_EQ(ctl(0, "version next").out, "1\n");
    EXPECT_EQ(ctl(1, "version next").out, "2\n");
    EXPECT_EQ(ctl(0, "version set numbering 2147483647").code, 0);
    EXPECT_EQ(ctl(0, "version next").out, "1\n") << "the one after the last";
    EXPECT_EQ(ctl(0, "version set numbering 9").code, 0);
    EXPECT_EQ(ctl(0, "version set backup 7").code, 0);
    EXPECT_EQ(ctl(0, "version set accept 6").code, 0);
    EXPECT_EQ(ctl(0, "version set reboot 4").code, 0);
    EXPECT_EQ(ctl(0, "version set current 5").code, 0);
    EXPECT_EQ(ctl(0, "version set current 8 --controller CNT2").code, 0);
    EXPECT_EQ(ctl(0, "version set status 3 --controller CNT2").code, 0);
    EXPECT_EQ(ctl(0, "version set flash 5").code, 0);
    const json shown = ctl(0, "--json version show").json().at("result");
    const json expected = {{"numbering", 9},
                           {"accept", 6},
                           {"current-cnt0", 5},
                           {"current-cnt1", 0},
                           {"current-cnt2", 8},
                           {"current-cnt3", 0},
                           {"backup", 7},
                           {"status-cnt0", 0},
                           {"status-cnt1", 0},
                           {"status-cnt2", 3},
                           {"status-cnt3", 0},
                           {"reboot", 4},
                           {"flash", 5},
                           {"flash-reboot", nullptr},
                           {"flash-cntno", nullptr},
                           {"flash-rebootcount", nullptr}};
    EXPECT_EQ(shown, expected);
    EXPECT_EQ(on(0, "cat /etc/kesta_sys/version").out, "5\n");

    const Ran older = ctl(0, "version compare");
    EXPECT_EQ(older.code, 1);
    EXPECT_THAT(older.out, HasSubstr("backup: the backup is the one to use"));
    EXPECT_EQ(ctl(0, "--json version compare --backup 3 --numbering 9").json().at("result").at("newer"), "current");
    const Ran same = ctl(0, "version compare --backup 5");
    EXPECT_EQ(same.code, 0);
    EXPECT_THAT(same.out, HasSubstr("same"));
}

TEST_F(KestactlLock, UnreadableFlashIsNoAnswerAndNoPass)
{
    EXPECT_EQ(on(0, "echo x > /etc/kesta_sys/version").code, 0);
    expect_refused(ctl(0, "version compare"), 4, "can't be read, or holds no number");
    const Ran shown = ctl(0, "version show");
    EXPECT_EQ(shown.code, 4);
    EXPECT_THAT(shown.out, HasSubstr("flash              unknown"));
    EXPECT_EQ(ctl(0, "version set flash 1").code, 0);
    EXPECT_EQ(ctl(0, "version show").code, 0);
}

TEST_F(KestactlLock, DryRunsWriteNothingAtAll)
{
    std::string identifier = "0";
    for (const std::string command :
         {"version set backup 3", "version set flash 3", "version next", "lock take --group network", "lock suspend ID",
          "lock resume ID", "lock convert ID", "lock release ID", "lock local nightly -- true", "lock take -- true"}) {
        std::string line = command;
        if (const std::size_t at = line.find("ID"); at != std::string::npos) {
            line.replace(at, 2, identifier);
        }
        const std::size_t words = line.find(" -- ");
        const std::string dry = words == std::string::npos ? line + " --dry-run"
                                                           : line.substr(0, words) + " --dry-run" + line.substr(words);
        const auto before = snapshot();
        for (const std::string global : {"", "--json ", "--trace 5 "}) {
            const Ran planned = ctl(0, global + dry);
            EXPECT_EQ(planned.code, 0) << dry << planned.err;
            EXPECT_FALSE(planned.out.empty());
            EXPECT_TRUE(snapshot() == before) << global << dry << " wrote something";
        }
        const Ran done = ctl(0, line);
        EXPECT_EQ(done.code, 0) << line << done.err;
        if (line.rfind("lock take --group", 0) == 0) {
            identifier = trimmed(done.out);
        }
        if (words == std::string::npos) {
            EXPECT_FALSE(snapshot() == before) << line;
        }
    }
}

// ------------------------------------------------------------------------------------ the one lock rule

// What changes something that all controllers share minds the lock of another controller.
TEST_F(KestactlLock, WhatChangesSharedThingsHonoursAnothersLock)
{
    set_slots();
    save_environment(0);
    succeed(
        "kestactl copy cntbackup2backup && mkdir -p /var/run/kesta_sys/tmp && "
        "cp /opt/kesta_sys/bakup/backup.tar.Z /var/run/kesta_sys/tmp/");
    ASSERT_EQ(ctl(2, "lock take --group network").code, 0);
    const auto before = snapshot_of_shared();
    for (const char *verb :
         {"copy cntbackup2backup", "copy merge-file2accept", "slot switch", "restore app --switch-only",
          "version set backup 7", "version next", "nv write group other", "nv clear --yes", "nv init --yes",
          "nv flags --req 1", "nv sync", "repair --from memory", "identity set --wwn 0123456789abcdef"}) {
        const Ran refused = ctl(0, verb);
        EXPECT_EQ(refused.code, 3) << verb << refused.out << refused.err;
        EXPECT_THAT(refused.err, HasSubstr("CNT2 holds a type-1 lock")) << verb;
    }
    EXPECT_TRUE(snapshot_of_shared() == before) << "nothing was done";
    EXPECT_EQ(ctl(0, "slot switch --dry-run").code, 0) << "looking is free";
    EXPECT_EQ(ctl(2, "nv write group mine").code, 0) << "who holds it is at work";
    EXPECT_EQ(ctl(0, "slot switch --ignore-lock CNT1").code, 3) << "another one's";
    EXPECT_EQ(ctl(0, "slot switch --ignore-lock CNT2").code, 0);
    EXPECT_EQ(ctl(0, "slot switch --ignore-lock CNT9").code, 2);
    const Ran waited = ctl(0, "nv write group later --wait 1");
    EXPECT_EQ(waited.code, 3);
    EXPECT_THAT(waited.err, HasSubstr("waiting for the command lock until "));
    EXPECT_EQ(ctl(2, "lock release --force").code, 0);
    EXPECT_EQ(ctl(0, "nv write group later --wait 1").code, 0);
}

TEST_F(KestactlLock, ImageWithoutItsStampIsNotErasedUnderALock)
{
    set_slots();
    ASSERT_EQ(ctl(1, "lock take").code, 0);
    EXPECT_EQ(ctl(0, "nv init --yes").code, 3) << "no header yet, and a lock all the same";
    EXPECT_EQ(ctl(0, "nv init --yes --ignore-lock CNT1").code, 0);
    EXPECT_EQ(ctl(0, "lock check").code, 0) << "it went with the rest";
}
