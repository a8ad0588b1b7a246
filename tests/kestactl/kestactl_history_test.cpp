// History, differences, undo and what programs that watch are told, on a lab as an operator meets them.
#include "saved_group.h"

using namespace test;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class KestactlHistory : public SavedGroup {
protected:
    KestactlHistory()
    {
        define("");
        succeed("kestactl save network && kestactl accept");
        write_file(host_path(0, "etc/app/one"), "changed\n");
    }
};

TEST_F(KestactlHistory, WhatChangedIsListedComparedAndTakenBack)
{
    const Ran differs = ctl(0, "diff network");
    EXPECT_EQ(differs.code, 1) << differs.err;
    EXPECT_THAT(differs.out,
                HasSubstr("~  /etc/app/one\n--- /etc/app/one\n+++ /etc/app/one\n@@ -1 +1 @@\n-one\n+changed\n"));
    const Ran verified = ctl(0, "verify");
    EXPECT_EQ(verified.code, 0) << "drift is no finding";
    EXPECT_THAT(verified.out, HasSubstr("1 changed, 0 added, 0 removed"));
    EXPECT_EQ(ctl(0, "verify --drift").code, 1);
    EXPECT_EQ(ctl(0, "--json verify").json().at("result").at("drift").at("paths").at(0), "/etc/app/one");
    EXPECT_EQ(on(0, "SUDO_USER=daemon kestactl save network --reason 'new firmware'").code, 0);
    EXPECT_EQ(ctl(0, "verify --drift").code, 0);
    EXPECT_EQ(ctl(0, "diff network").code, 0);
    const Ran listed = ctl(0, "history --oneline --version 1 --since 1h");
    EXPECT_THAT(listed.out, AllOf(StartsWith("    1  "), HasSubstr("  network  version 1  ")));
    EXPECT_EQ(ctl(0, "history --until 1h").out, "Nothing was kept yet.\n");
    EXPECT_THAT(ctl(0, "history show 1").out, HasSubstr("save: new firmware (done)\n"));
    EXPECT_EQ(ctl(0, "diff network 1 accept").code, 0);
    EXPECT_EQ(ctl(0, "diff network 1").code, 1);
    EXPECT_EQ(ctl(0, "diff nothing").code, 4);
    EXPECT_EQ(ctl(0, "diff network live live").code, 2);
    const Ran planned = ctl(0, "restore network --generation 1 --dry-run");
    EXPECT_THAT(planned.out, HasSubstr("-changed\n+one\n"));
    EXPECT_EQ(ctl(0, "restore network --generation 1").code, 0);
    EXPECT_EQ(file_on(0, "/etc/app/one"), "one\n");
    EXPECT_EQ(ctl(0, "undo --dry-run").code, 0);
    EXPECT_EQ(ctl(0, "undo").code, 2) << "nobody is there to answer";
    EXPECT_EQ(ctl(0, "undo --yes").code, 0);
    EXPECT_EQ(file_on(0, "/etc/app/one"), "changed\n");
    EXPECT_EQ(ctl(0, "verify --drift").code, 0);
}

TEST_F(KestactlHistory, ARestoreThatWasCutShortIsCompletedByTheCommandThatIsNamed)
{
    write_file(host_path(0, "opt/kesta_sys/bakup/.restore"),
               "{\"group\":\"network\",\"from\":\"undo\",\"only\":\"\",\"on_reboot\":false,\"replaced\":[]}");
    expect_refusal(ctl(0, "save network"), 1, "is unfinished");
    EXPECT_THAT(ctl(0, "status").out, HasSubstr("complete it with kestactl undo --yes"));
}

TEST_F(KestactlHistory, ProgramsThatWatchAreToldAndTheOthersAreAsked)
{
    const Ran metrics = ctl(0, "metrics");
    EXPECT_EQ(metrics.code, 0) << metrics.err;
    EXPECT_THAT(metrics.out, AllOf(HasSubstr("kesta_version{area=\"backup\"} 1\n"), testing::EndsWith("# EOF\n")));
    EXPECT_EQ(ctl(0, "metrics --verify --output /opt/kesta.prom").code, 0);
    EXPECT_THAT(file_on(0, "/opt/kesta.prom"), HasSubstr("kesta_findings 0\n"));
    EXPECT_EQ(ctl(0, "check").code, 0);
    const Ran checked = ctl(0, "check --verify --drift");
    EXPECT_EQ(checked.code, 1);
    EXPECT_THAT(checked.out, StartsWith("KESTA WARNING - files of network since they were saved: 1 changed"));
    write_file(host_path(0, "etc/kesta/remote.conf"), "command = /opt/way %h\ntimeout = 20\n");
    write_file(host_path(0, "opt/way"),
               "#!/bin/sh\n[ $1 != CNT2 ] || exit 1\nkesta-lab exec $1 -- /bin/sh -c \"$2\"\n");
    fs::permissions(host_path(0, "opt/way"), fs::perms::owner_all);
    const Ran all = ctl(0, "status --all");
    EXPECT_EQ(all.code, 4) << all.err;
    EXPECT_THAT(all.out, AllOf(HasSubstr("CNT0  runs version 1, backup 1 in kesta_backup0"),
                               HasSubstr("CNT2  no answer: it ended with exit code 1\n")));
    const nlohmann::json verified = ctl(0, "--json verify --all").json().at("result").at("controllers");
    ASSERT_EQ(verified.size(), 4U);
    EXPECT_EQ(verified.at(0).at("exit"), 0);
    EXPECT_EQ(verified.at(2).at("answered"), false);
}

TEST_F(KestactlHistory, TerminalsAreColouredUnlessTheyAreNotToBe)
{
    const auto in_terminal = [this](const std::string &command) {
        return on(0, "TERM=xterm script -qec '" + command + "' /dev/null").out;
    };
    if (on(0, "command -v script").code == 0) {
        EXPECT_THAT(in_terminal("kestactl diff network"), HasSubstr("\033[31m-one\033[0m"));
        EXPECT_THAT(in_terminal("NO_COLOR=1 kestactl diff network"), Not(HasSubstr("\033")));
    }
    EXPECT_THAT(ctl(0, "diff network").out, Not(HasSubstr("\033")));
    const Ran quiet = ctl(0, "-q diff network");
    EXPECT_EQ(quiet.code, 1);
    EXPECT_EQ(quiet.out + quiet.err, "");
    EXPECT_EQ(ctl(0, "-q -v status").code, 2);
    EXPECT_THAT(ctl(0, "group list").out, HasSubstr("network  2 paths\n"));
    EXPECT_NE(on(0, "kestactl status --watch 1 | head -1 | grep controller").out, "");
}
