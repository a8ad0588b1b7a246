// The operator's command line, on the controllers of a lab.
#include <algorithm>
#include <fstream>

#include "lab_fixture.h"

using namespace test;
using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

namespace {

// One sentence that says what is wrong, and one that says what to do.
void expect_refusal(const Ran &run, int code)
{
    EXPECT_EQ(run.code, code) << run.out << run.err;
    EXPECT_EQ(run.out, "");
    EXPECT_THAT(run.err, testing::StartsWith("kestactl: "));
    EXPECT_GE(std::count(run.err.begin(), run.err.end(), '\n'), 2) << run.err;
}

}  // namespace

class Kestactl : public LabTest {
protected:
    // The same refusal as JSON: nothing else on stdout.
    void expect_json_refusal(int controller, const std::string &arguments, int code)
    {
        const Ran run = ctl(controller, "--json " + arguments);
        EXPECT_EQ(run.code, code) << arguments;
        const json answer = run.json();
        EXPECT_EQ(answer.at("schema_version"), 1);
        EXPECT_EQ(answer.at("error").at("exit"), code);
        EXPECT_FALSE(answer.at("error").at("code").get<std::string>().empty());
        EXPECT_FALSE(answer.at("error").at("message").get<std::string>().empty());
        EXPECT_FALSE(answer.at("error").at("hint").get<std::string>().empty());
        EXPECT_FALSE(answer.contains("result"));
    }
    void script(int controller, const std::string &name, const std::string &text)
    {
        EXPECT_EQ(on(controller, "mkdir -p /etc/kesta_sys/network").code, 0);
        const Ran put =
            shell(lab() + " --dir " + dir.string() + " exec CNT" + std::to_string(controller) + " -- /bin/sh -c " +
                  quoted("cat > /etc/kesta_sys/network/" + name + " <<'END'\n" + text + "END\n"));
        EXPECT_EQ(put.code, 0) << put.err;
    }
};

TEST_F(Kestactl, HelpAndVersion)
{
    EXPECT_EQ(ctl(0, "--version").code, 0);
    EXPECT_THAT(ctl(0, "--version").out, testing::MatchesRegex(".*[0-9]+\\.[0-9]+\\.[0-9]+\n"));
    for (const std::string command : {"",
                                      "status",
                                      "completion",
                                      "verify",
                                      "save",
                                      "accept",
                                      "nv",
                                      "nv list",
                                      "nv read",
                                      "nv write",
                                      "nv verify",
                                      "nv init",
                                      "nv clear",
                                      "nv flags",
                                      "nv sync",
                                      "nv dump",
                                      "repair",
                                      "identity",
                                      "identity show",
                                      "identity set",
                                      "identity carry",
                                      "identity carry vpd-to-flash",
                                      "identity carry vpd-to-disk",
                                      "identity carry cnt0-to-cnt1",
                                      "slot",
                                      "slot show",
                                      "slot switch",
                                      "copy",
                                      "copy backup2tmp",
                                      "copy cntbackup2tmp",
                                      "copy cntbackup2backup",
                                      "copy merge-file2accept",
                                      "copy backup2copy",
                                      "restore",
                                      "run"}) {
        const Ran help = ctl(0, command + " --help");
        EXPECT_EQ(help.code, 0) << command;
        EXPECT_THAT(help.out, HasSubstr("Usage: kestactl")) << command;
        EXPECT_EQ(help.err, "") << command;
    }
}

TEST_F(Kestactl, WrongUsageIsTwoAndJsonWhereAsked)
{
    for (const std::string arguments : {"",
                                        "frob",
                                        "nv",
                                        "nv read",
                                        "nv read group extra",
                                        "nv read no-such-block",
                                        "nv read 99",
                                        "nv write group",
                                        "slot switch --backup",
                                        "slot switch --backup nonsense",
                                        "nv read group --from nowhere",
                                        "restore",
                                        "restore ../x",
                                        "restore network --from here",
                                        "restore 'a b'",
                                        "restore $(printf %040d 1)",
                                        "copy",
                                        "copy frob",
                                        "run",
                                        "--trace 9 status",
                                        "copy backup2copy 'x;y'"}) {
        const Ran refused = ctl(0, arguments);
        EXPECT_EQ(refused.code, 2) << arguments << refused.err;
        EXPECT_EQ(refused.out, "") << arguments;
        EXPECT_FALSE(refused.err.empty()) << arguments;
        expect_json_refusal(0, arguments, 2);
    }
}

TEST_F(Kestactl, EmptyTextIsNotTakenForAnOptionThatWasLeftOut)
{
    set_slots();
    for (const char *arguments :
         {"restore network --only ''", "restore network --generation ''", "slot switch --backup '' --accept ''",
          "copy merge-file2accept --slot ''", "copy archive slot:kesta_backup0 flash:backup --sha256 ''",
          "version set current 3 --controller ''", "diff network --from ''"}) {
        const Ran run = ctl(0, arguments);
        EXPECT_EQ(run.code, 2) << arguments << run.out;
        EXPECT_THAT(run.err, HasSubstr("an empty text is no value")) << arguments;
    }
    EXPECT_EQ(ctl(0, "slot show").out.find("backup  kesta_backup1"), std::string::npos) << "nothing was switched";
    EXPECT_EQ(ctl(0, "run --event '' -- true").code, 0) << "that says what the command shall be told";
}

TEST_F(Kestactl, StatusNamesEverything)
{
    set_slots();
    ctl(0, "nv write group network");
    const json status = ctl(2, "status --json").json().at("result");
    EXPECT_EQ(status.at("controller"), 2);
    EXPECT_EQ(status.at("controllers"), 4);
    EXPECT_EQ(status.at("boot_mode"), "normal");
    EXPECT_EQ(status.at("master"), 0);
    EXPECT_EQ(status.at("backup_slot"), "kesta_backup0");
    EXPECT_EQ(status.at("accept_slot"), "kesta_backup1");
    EXPECT_EQ(status.at("group"), "network");
    EXPECT_THAT(ctl(2, "status").out, HasSubstr("CNT2 of 4"));
}

TEST_F(Kestactl, ClosedStandardDescriptorsHarmNothing)
{
    set_slots();
    const auto before = snapshot();
    for (const char *verb :
         {"status", "slot show", "verify", "version show", "nv verify", "nv list", "identity show", "lock check"}) {
        for (const char *closed : {"<&-", ">&-", "2>&-", "<&- >&-", ">&- 2>&-", "<&- >&- 2>&-"}) {
            ctl(0, std::string(verb) + " " + closed);
            on(0, std::string("cpinfo -i ") + closed);
        }
    }
    auto after = snapshot();
    for (const auto &[path, what] : before) {
        if (path.find("/log/") == std::string::npos && path.find("trace.log") == std::string::npos) {
            EXPECT_EQ(after[path], what) << path;
        }
    }
    EXPECT_EQ(ctl(0, "lock check").code, 0);
}

TEST_F(Kestactl, StatusChecksumsTheArchives)
{
    set_slots();
    save_environment(0);
    ASSERT_EQ(ctl(0, "copy cntbackup2backup").code, 0);
    const std::string sum = on(0, "sha256sum < /opt/kesta_sys/bakup/backup.tar.Z").out.substr(0, 64);
    int seen = 0;
    const json status = ctl(0, "status --archives --json").json();
    for (const json &archive : status.at("result").at("archives")) {
        seen += archive.value("sha256", "") == sum;
    }
    EXPECT_EQ(seen, 2) << "on flash and in the backup slot";
}

TEST_F(Kestactl, BlocksByNameAndNumberFromEitherPlace)
{
    set_slots();
    EXPECT_EQ(ctl(0, "nv read 31").out, "kesta_backup0\n");
    EXPECT_EQ(ctl(0, "nv read backup-name").out, "kesta_backup0\n");
    EXPECT_EQ(ctl(0, "nv read backup-name --from memory --json").json().at("result").at("place"), "NV memory");
    EXPECT_EQ(ctl(0, "nv read backup-name --from sysback --json").json().at("result").at("place"),
              "system backup area");
    EXPECT_EQ(ctl(0, "nv write numbering-version 41").code, 0);
    EXPECT_EQ(ctl(3, "nv read 51").out, "41\n");
    EXPECT_NE(ctl(0, "nv write numbering-version x").code, 0);
    EXPECT_NE(ctl(0, "nv write group 'sixteen_letters!'").code, 0) << "no such group name";
    EXPECT_NE(ctl(0, "nv write backup-name elsewhere").code, 0);
    EXPECT_EQ(ctl(0, "nv read 51").out, "41\n");
}

TEST_F(Kestactl, SlotsAreShownSwitchedAndCheckedFirst)
{
    const Ran unset = ctl(0, "slot switch");
    expect_refusal(unset, 1);
    EXPECT_EQ(ctl(0, "slot show").code, 1) << "nothing valid is in force";
    set_slots();
    EXPECT_EQ(ctl(1, "slot show").code, 0);
    EXPECT_EQ(ctl(1, "slot switch").code, 0);
    const json slots = ctl(2, "slot show --json").json().at("result");
    EXPECT_EQ(slots.at("backup"), "kesta_backup1");
    EXPECT_EQ(slots.at("accept"), "kesta_backup0");
}

TEST_F(Kestactl, EnvironmentTravelsThroughEveryFlow)
{
    set_slots();
    const std::string backup = save_environment(0);
    const std::string accept = save_environment(0, "accept.tar.Z");
    ASSERT_NE(backup, accept);

    ASSERT_EQ(ctl(0, "copy cntbackup2backup").code, 0);
    ASSERT_EQ(ctl(1, "copy backup2tmp").code, 0);
    EXPECT_EQ(file_on(1, "/tmp/kesta_sys/tmp/backup.tar.Z"), backup);
    EXPECT_EQ(file_on(1, "/tmp/kesta_sys/tmp/etc/app/one"), "one\n") << "unpacked";

    ASSERT_EQ(ctl(0, "copy cntbackup2tmp").code, 0);
    EXPECT_EQ(file_on(0, "/tmp/kesta_sys/tmp/backup.tar.Z"), backup);

    ASSERT_EQ(on(0, "cp /opt/kesta_sys/bakup/accept.tar.Z /var/run/kesta_sys/tmp/backup.tar.Z").code, 0);
    ASSERT_EQ(ctl(0, "copy merge-file2accept").code, 0);
    ASSERT_EQ(ctl(3, "copy backup2tmp --accept --check").code, 0) << ctl(3, "copy backup2tmp --help").out;
    EXPECT_EQ(file_on(3, "/tmp/kesta_sys/tmp/check.tar.Z"), accept);

    script(2, "env_copy_scr.sh", "cp /opt/kesta_sys/bakup/backup.tar.Z /etc/kesta_sys/copied\n");
    const Ran copied = on(2, "KESTA_CPMODE_STATUS=2 kestactl copy backup2copy network");
    EXPECT_EQ(copied.code, 0) << copied.err;
    EXPECT_EQ(file_on(2, "/opt/kesta_sys/bakup/backup.tar.Z"), backup);
    EXPECT_EQ(file_on(2, "/etc/kesta_sys/copied"), backup);
}

TEST_F(Kestactl, RestoreBringsTheEnvironmentBack)
{
    set_slots();
    const std::string backup = save_environment(0);
    ASSERT_EQ(ctl(0, "copy cntbackup2backup").code, 0);
    save_environment(1, "accept.tar.Z");
    script(1, "env_restore1_udbk_scr.sh",
           "mkdir -p /etc/app && bunzip2 -c /opt/kesta_sys/bakup/backup.tar.Z | "
           "/usr/sbin/tar -C / -xf -\n");
    const Ran restored = ctl(1, "restore network --from backup --script update");
    EXPECT_EQ(restored.code, 0) << restored.err;
    EXPECT_EQ(file_on(1, "/opt/kesta_sys/bakup/backup.tar.Z"), backup);
    EXPECT_EQ(file_on(1, "/etc/app/which"), "backup.tar.Z\n");
}

TEST_F(Kestactl, RestoreThatFailsSaysAtWhichStage)
{
    set_slots();
    save_environment(1, "accept.tar.Z");
    const Ran no_archive = ctl(1, "restore network --from backup --script update");
    EXPECT_NE(no_archive.code, 0);
    EXPECT_THAT(no_archive.err, testing::StartsWith("kestactl: "));
    save_environment(0);
    ASSERT_EQ(ctl(0, "copy cntbackup2backup").code, 0);
    script(1, "env_restore1_udbk_scr.sh", "exit 9\n");
    const Ran failed = ctl(1, "restore network --from backup --script update");
    EXPECT_NE(failed.code, 0);
    EXPECT_THAT(failed.err, HasSubstr("script"));
}

TEST_F(Kestactl, RunPassesTheOutcome)
{
    EXPECT_EQ(ctl(0, "run -- true").code, 0);
    const Ran failed = ctl(0, "run --json -- 'echo noise; exit 3'");
    EXPECT_EQ(failed.code, 1);
    EXPECT_EQ(failed.json().at("result").at("exit_code"), 3);
    const Ran killed = ctl(0, "run --json -- 'kill -9 $$'");
    EXPECT_EQ(killed.code, 1);
    EXPECT_EQ(killed.json().at("result").at("signal"), 9);
    EXPECT_EQ(ctl(0,
                  "run --event e1 --platform-status p1 -- 'echo $KESTA_EVENT "
                  "$KESTA_VRBGETSTAT'")
                  .out,
              "e1 p1\n");
}

TEST_F(Kestactl, DryRunsWriteNothingAtAll)
{
    set_slots();
    save_environment(0);
    save_environment(0, "accept.tar.Z");
    ASSERT_EQ(ctl(0, "copy cntbackup2backup").code, 0);
    ASSERT_EQ(on(0, "cp /opt/kesta_sys/bakup/accept.tar.Z /var/run/kesta_sys/tmp/backup.tar.Z").code, 0);
    script(0, "env_copy_scr.sh", "touch /etc/kesta_sys/ran\n");
    script(0, "env_restore1_udbk_scr.sh", "touch /etc/kesta_sys/ran\n");
    script(0, "env_restore1_rbap_scr.sh", "touch /etc/kesta_sys/ran\n");
    const std::string commands[] = {
        "nv write group other",
        "slot switch",
        "slot switch --backup kesta_backup0 --accept kesta_backup1",
        "copy backup2tmp",
        "copy cntbackup2tmp",
        "copy cntbackup2backup",
        "copy merge-file2accept",
        "copy backup2copy network",
        "restore network --from backup --script update",
        "restore network --from accept --switch-only",
        "restore network --no-switch --script update",
        "run -- 'touch /etc/kesta_sys/ran'",
    };
    for (const std::string &command : commands) {
        const auto before = snapshot();
        const std::size_t words = command.find(" -- ");
        const std::string dry = words == std::string::npos
                                    ? command + " --dry-run"
                                    : command.substr(0, words) + " --dry-run" + command.substr(words);
        for (const std::string global : {"", "--json ", "--trace 5 "}) {
            const Ran planned = ctl(0, global + dry);
            EXPECT_EQ(planned.code, 0) << dry << planned.err;
            EXPECT_FALSE(planned.out.empty());
            EXPECT_TRUE(snapshot() == before) << global << dry << " wrote something";
        }
        const json plan = ctl(0, "--json " + dry).json().at("result");
        EXPECT_TRUE(plan.at("dry_run").get<bool>());
        EXPECT_FALSE(plan.at("steps").empty()) << dry;
        // And the same command without it does change something.
        const Ran done = ctl(0, command);
        EXPECT_EQ(done.code, 0) << command << done.err;
        EXPECT_FALSE(snapshot() == before) << command;
    }
}

TEST_F(Kestactl, PlatformFailureIsFourAndSaysWhich)
{
    set_slots();
    EXPECT_EQ(on(0, "echo 'nv_write 1 on fail 5' > /tmp/faults").code, 0);
    const Ran failed = on(0, "KESTA_PLATFORM_FAULT_FILE=/tmp/faults kestactl nv write group x");
    expect_refusal(failed, 4);
    const Ran in_json = on(0, "KESTA_PLATFORM_FAULT_FILE=/tmp/faults kestactl --json nv write group x");
    EXPECT_EQ(in_json.json().at("error").at("exit"), 4);
    EXPECT_FALSE(in_json.json().at("error").at("traces").empty());
    EXPECT_EQ(ctl(0, "nv read group").out, "\n") << "nothing was written";
    // An error while checking is no pass.
    EXPECT_EQ(on(0, "echo 'nv_read 1 on fail 5\nsb_open 1 on fail 5' > /tmp/faults").code, 0);
    EXPECT_EQ(on(0, "KESTA_PLATFORM_FAULT_FILE=/tmp/faults kestactl slot show").code, 4);
    EXPECT_EQ(on(0, "KESTA_PLATFORM_FAULT_FILE=/tmp/faults kestactl status").code, 4);
    EXPECT_EQ(on(0, "echo 'cpinfo 1 on fail' > /tmp/faults").code, 0);
    EXPECT_EQ(on(0, "KESTA_PLATFORM_FAULT_FILE=/tmp/faults kestactl status").code, 4);
}

TEST_F(Kestactl, InnerLockHeldByAnotherIsThree)
{
    set_slots();
    // A holder on CNT1 whose slot stays set.
    {
        constexpr std::streamoff slot_of_cnt1 = 616;
        std::fstream image(dir / "shared/nv/region2.img", std::ios::in | std::ios::out | std::ios::binary);
        image.seekp(slot_of_cnt1);
        image.write("\1\0\0\0\0\0\0\0\x19\0\0\0\0\0\0\0", 16);
    }
    const json status = ctl(0, "status --json").json().at("result");
    ASSERT_EQ(status.at("inner_lock").size(), 1u);
    EXPECT_EQ(status.at("inner_lock").at(0).at("controller"), 1);
    // All attempts pass at once: 1000 of them without a release.
    fs::copy_file(KESTA_NO_WAIT_LIBRARY, host_path(0, "tmp/libno_wait.so"));
    const Ran held = on(0, "LD_PRELOAD=/tmp/libno_wait.so kestactl slot switch");
    expect_refusal(held, 3);
    const Ran in_json = on(0, "LD_PRELOAD=/tmp/libno_wait.so kestactl --json slot switch");
    EXPECT_EQ(in_json.code, 3);
    EXPECT_EQ(in_json.json().at("error").at("code"), "inner-lock-held");
}

TEST_F(Kestactl, TracesGoToStandardError)
{
    const Ran traced = ctl(0, "--trace 5 nv read group");
    EXPECT_EQ(traced.code, 0);
    EXPECT_EQ(traced.out, "\n");
    EXPECT_THAT(traced.err, HasSubstr("[non_volatile_rw_memory] END block_id=21 rw_flag=2"));
    EXPECT_EQ(ctl(0, "nv read group").err, "");
}

TEST_F(Kestactl, UnknownCommandsAreNamedWithTheNearestOne)
{
    const Ran one = ctl(0, "stauts");
    EXPECT_EQ(one.code, 2);
    EXPECT_EQ(one.err,
              "kestactl: 'stauts' is no command of kestactl.\n"
              "Did you mean 'status'? See --help for all of them.\n");
    const Ran inner = ctl(0, "--trace 3 nv raed group");
    EXPECT_EQ(inner.code, 2);
    EXPECT_THAT(inner.err, testing::HasSubstr("'raed' is no command of 'kestactl nv'"));
    EXPECT_THAT(inner.err, testing::HasSubstr("Did you mean 'read'?"));
    // The value of a command's own option is no command.
    const Ran empty = ctl(0, "history --group ''");
    EXPECT_EQ(empty.code, 2);
    EXPECT_THAT(empty.err,
                testing::AllOf(testing::HasSubstr("--group"), testing::Not(testing::HasSubstr("command of"))));
    const Ran third = ctl(0, "--json vrify");
    EXPECT_THAT(third.json()["error"]["hint"].get<std::string>(), testing::HasSubstr("'verify'"));
}

TEST_F(Kestactl, BoundsAreSaidInNumbersThatCanBeRead)
{
    for (const std::string words : {"lock wait --wait -1", "lock wait --wait x", "save network --wait -1",
                                    "save network --script-timeout 0", "version compare --backup -1"}) {
        const Ran refused = ctl(0, words);
        EXPECT_EQ(refused.code, 2) << words;
        EXPECT_LT(refused.err.size(), 200U) << refused.err;
        EXPECT_THAT(refused.err, testing::HasSubstr("2147483647")) << words;
    }
    for (const auto &[words, sentence] :
         {std::pair<std::string, const char *>{"save network --keep -1", "Value -1 is below 0\n"},
          {"slot switch --wait -1", "Value -1 is below 0\n"},
          {"save network --keep ' -5'", "Value  -5 is below 0\n"},
          {"save network --keep x", "Value x is no number\n"}}) {
        const Ran refused = ctl(0, words);
        EXPECT_EQ(refused.code, 2) << words;
        EXPECT_THAT(refused.err, testing::HasSubstr(sentence)) << words;
    }
}

// A verb that holds nothing, and waits in the platform; --json tells it too.
TEST_F(Kestactl, InterruptionIsToldAndEndsWithItsCode)
{
    write_file(host_path(0, "opt/faults"), "nv_read 1 on delay 30000\n");
    for (const std::string option : {"", "--json "}) {
        const Ran cut = on(0,
                           "export KESTA_PLATFORM_FAULT_FILE=/opt/faults; "
                           "timeout --preserve-status --foreground -s INT 0.5 kestactl " +
                               option + "status");
        EXPECT_EQ(cut.code, 130) << cut.err;
        if (option.empty()) {
            EXPECT_THAT(cut.err, testing::HasSubstr("kestactl: Interrupted."));
        } else {
            EXPECT_EQ(cut.json()["error"]["code"], "interrupted");
        }
    }
    EXPECT_THAT(ctl(0, "--help").out, testing::HasSubstr("130 interrupted"));
}

// What bash completes behind these words, the last of which is being typed.
TEST_F(Kestactl, ShellsCompleteCommandsOptionsAndNames)
{
    set_slots();
    script(0, "x", "");
    write_file(host_path(0, "etc/kesta_sys/network/define.xml"), "<group/>");
    const auto completed = [this](const std::string &words) {
        const Ran run = on(0, "cat > /tmp/try <<'END'\n. <(kestactl completion bash)\nCOMP_WORDS=(" + words +
                                  ")\nCOMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_kestactl\necho "
                                  "\"${COMPREPLY[@]}\"\nEND\nbash /tmp/try");
        EXPECT_EQ(run.code, 0) << run.err;
        EXPECT_EQ(run.err, "");
        return run.out;
    };
    EXPECT_EQ(completed("kestactl sta"), "status\n");
    EXPECT_EQ(completed("kestactl nv re"), "read\n");
    EXPECT_EQ(completed("kestactl nv read --fr"), "--from\n");
    EXPECT_EQ(completed("kestactl nv read group --from m"), "memory\n");
    EXPECT_EQ(completed("kestactl nv read accept-n"), "accept-name\n");
    EXPECT_EQ(completed("kestactl save net"), "network\n");
    EXPECT_EQ(completed("kestactl slot switch --backup kesta_backup1 --accept kesta_"),
              "kesta_backup0 kesta_backup1\n");
    EXPECT_EQ(completed("kestactl identity carry cnt0"), "cnt0-to-cnt1\n");
    EXPECT_EQ(completed("kestactl restore network --from ''"), "backup accept kesta_backup0 kesta_backup1\n");
    EXPECT_EQ(completed("kestactl restore network --from = acc"), "accept\n");
    EXPECT_EQ(completed("kestactl restore network --from ="), "backup accept kesta_backup0 kesta_backup1\n");
    EXPECT_EQ(completed("kestactl copy merge-file2accept --slot ''"), "kesta_backup0 kesta_backup1\n");
    EXPECT_EQ(completed("kestactl identity set --in e"), "eeprom\n");
    EXPECT_EQ(completed("kestactl copy backup2tmp --accept net"), "network\n") << "a flag has no value";
    EXPECT_EQ(completed("kestactl --trace ''"), "0 1 2 3 4 5\n");
    EXPECT_EQ(completed("kestactl completion z"), "zsh\n");
    EXPECT_EQ(completed("kestactl group check net"), "network\n");
    EXPECT_EQ(completed("kestactl group check /etc/kesta_sys/netw"), "/etc/kesta_sys/network\n");
    EXPECT_EQ(completed("kestactl nv dump --out /etc/kesta_sy"), "/etc/kesta_sys\n");
    EXPECT_EQ(ctl(0, "version set numbering 41").code, 0);
    EXPECT_EQ(completed("kestactl version compare --backup 4"), "41\n");
    const std::string identifier = ctl(0, "lock take").out;
    EXPECT_EQ(completed("kestactl lock release ''"), "--help --dry-run --force --controller " + identifier)
        << "what can stand there";
    for (const std::string shell : {"bash", "zsh"}) {
        EXPECT_EQ(ctl(0, "completion " + shell).code, 0);
    }
    EXPECT_EQ(ctl(0, "completion fish").code, 2);
}
