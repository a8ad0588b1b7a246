// The other controllers, as they may answer: in order, with garbage, with too much, for another one, or not at all.
#include "all_controllers.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "mended_appliance.h"
#include "private_root.h"
#include "remote_controllers.h"

using namespace test;
using testing::HasSubstr;
using testing::Not;

namespace {

// Stands for the way to the others: what it is called with, and which of them answers how.
class AllControllersTest : public testing::Test {
protected:
    AllControllersTest()
    {
        write_file(engine::remote_settings_file, "# another way\ncommand = /tmp/asked %h\ntimeout = 1\n");
        for (const char *name : {"CNT1", "CNT2", "CNT3"}) {
            answers(name,
                    "echo '{\"schema_version\": 1, \"exit\": 0, \"result\": {\"controller\": " + std::string(name + 3) +
                        ", \"backup_slot\": \"kesta_backup0\", \"versions\": {\"backup\": 9}}}'");
        }
        write_file("/tmp/asked", "#!/bin/sh\necho \"$@\" >> /tmp/was-asked\n. /tmp/answer-$1\n");
        EXPECT_EQ(chmod("/tmp/asked", 0755), 0);
    }
    ~AllControllersTest() override { unlink(engine::remote_settings_file); }

    static void answers(const std::string &name, const std::string &script)
    {
        write_file("/tmp/answer-" + name, script + "\n");
    }
    Ran all(const std::string &verb = "status") const { return appliance.run({"kestactl", verb, "--all"}); }
    static Json row(const Ran &ran, std::size_t controller) { return ran.json.at("controllers").at(controller); }

    MendedAppliance appliance;
};

}  // namespace

TEST_F(AllControllersTest, EachIsARowAndWhatDiffersIsNamedWithBothValues)
{
    answers("CNT2", "echo '{\"exit\": 0, \"result\": {\"controller\": 2, \"backup_slot\": \"kesta_backup1\"}}'");
    const Ran ran = all();
    ASSERT_EQ(ran.json.at("controllers").size(), 4U) << ran.text;
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(row(ran, i).at("answered"), true) << ran.text;
    }
    EXPECT_EQ(ran.json.at("differences").at("backup_slot").at("CNT2"), "kesta_backup1");
    EXPECT_EQ(ran.json.at("differences").at("backup_slot").at("CNT0"), "kesta_backup0");
    EXPECT_THAT(read_file("/tmp/was-asked"), HasSubstr("CNT1 kestactl --json status\n"));
}

TEST_F(AllControllersTest, AnswersThatAreNoneAreRowsAndNoPass)
{
    answers("CNT1", "sleep 100 & sleep 100");
    answers("CNT2", "head -c 3000000 /dev/zero; sleep 100");
    answers("CNT3", "echo 'no route' 1>&2; exit 255");
    const Ran ran = all();
    EXPECT_EQ(ran.exit, 4);
    EXPECT_EQ(row(ran, 0).at("answered"), true);
    EXPECT_EQ(row(ran, 1).at("why"), "it did not answer within 1 seconds");
    EXPECT_THAT(row(ran, 2).at("why").get<std::string>(), HasSubstr("longer than"));
    EXPECT_EQ(row(ran, 3).at("why"), "it ended with exit code 255: no route");
}

TEST_F(AllControllersTest, WhatTheySayIsNotTrusted)
{
    answers("CNT1", "echo 'rm -rf /'");
    answers("CNT2", "echo '{\"exit\": 0, \"result\": {\"controller\": 3}}'");
    answers("CNT3",
            "printf '{\"exit\": 0, \"result\": {\"subjects\": [{\"state\": \"x\\\\u001b[2J\", \"subject\": [1], "
            "\"text\": \"\\\\u001b[2J\\\\nforged\"}], \"findings\": {\"a\": 1}}}'");
    const Ran ran = all("verify");
    EXPECT_EQ(ran.exit, 4);
    EXPECT_EQ(row(ran, 1).at("why"), "its answer is none of kestactl");
    EXPECT_EQ(row(ran, 2).at("why"), "it says that it is controller 3");
    EXPECT_THAT(ran.text, testing::AllOf(HasSubstr("\\x1b[2J\\x0aforged"), Not(HasSubstr("\nforged"))));
    answers("CNT3", "for i in $(seq 100000); do printf '['; done");
    EXPECT_EQ(row(all(), 3).at("why"), "its answer is none of kestactl");
    answers("CNT3", "echo '{\"error\": {\"message\": [[]]}}'");
    EXPECT_THAT(row(all(), 3).at("why").get<std::string>(), HasSubstr("it said: "));
}

TEST_F(AllControllersTest, HistoryOfAllIsInTheOrderOfTime)
{
    for (const char *name : {"CNT1", "CNT3"}) {
        answers(name, std::string("echo '{\"exit\": 0, \"result\": {\"generations\": [{\"date\": \"2026-01-0") +
                          name[3] + "\", \"number\": 1}, {\"date\": 5}]}}'");
    }
    const Ran ran = appliance.run({"kestactl", "history", "--all", "--group", "app", "--since", "9999d"});
    EXPECT_LT(ran.text.find("2026-01-03  CNT3"), ran.text.find("2026-01-01  CNT1"));
    EXPECT_THAT(read_file("/tmp/was-asked"), HasSubstr("CNT3 kestactl --json history --group app --since 9999d\n"));
}

TEST_F(AllControllersTest, SettingsThatMakeNoSenseAreRefused)
{
    for (const char *bad : {"command = ssh host", "timeout = 0", "timeout = 9x", "way = ssh %h", "command"}) {
        write_file(engine::remote_settings_file, std::string(bad) + "\n");
        EXPECT_EQ(all().exit, 4) << bad;
        EXPECT_THAT(all().text, HasSubstr("remote.conf:1")) << bad;
    }
    unlink(engine::remote_settings_file);
    EXPECT_EQ(engine::remote_transport().words.front(), "/usr/bin/rsh");
    EXPECT_THAT(row(all(), 1).at("why").get<std::string>(), HasSubstr("rsh"));
}
