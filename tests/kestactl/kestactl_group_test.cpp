// kestactl group, on the controllers of a lab.
#include "lab_fixture.h"

using namespace test;
using nlohmann::json;
using testing::HasSubstr;

class KestactlGroup : public LabTest {
protected:
    void define(const std::string &inside, const std::string &attributes = "id=\"network\"") const
    {
        write_file(host_path(0, "etc/kesta_sys/network/define.xml"),
                   "<group " + attributes + ">\n" + inside + "\n</group>\n");
    }
};

TEST_F(KestactlGroup, CheckAgreesWithTheReaderOverTheCorpus)
{
    for (const bool accepted : {true, false}) {
        for (const auto &entry : fs::directory_iterator(fs::path(KESTA_CORPUS) / (accepted ? "accepted" : "refused"))) {
            const Ran checked = shell(std::string(KESTA_BIN_DIR) + "/kestactl group check " + entry.path().string());
            EXPECT_EQ(checked.code, accepted ? 0 : 1) << entry.path() << checked.out;
            EXPECT_THAT(checked.out, HasSubstr(accepted ? ": accepted\n" : ": refused\n"));
        }
    }
}

TEST_F(KestactlGroup, CheckSaysEverythingAtOnceWithLinesAndLimits)
{
    define("<setinfo>\n<file path=\"" + std::string(256, 'p') +
               "\"/>\n"
               "<file><link path=\"/l*\"/></file>\n<flie path=\"/x\"/>\n"
               "<file path=\"/a\" cntmode=\"x\"><permission/></file>\n</setinfo>\n<setinfo/>",
           "id=\"another\"");
    const Ran checked = ctl(0, "group check network");
    EXPECT_EQ(checked.code, 1);
    for (const std::string line :
         {":3: error: the path of <file> has 256 characters, at most 255 are allowed", ":4: error: <file> needs a path",
          ":4: error: the path of <link> must not contain *", ":5: note: <flie> in <setinfo> is ignored",
          ":6: note: cntmode=\"x\" is no number, and counts as 0",
          ":6: error: <permission> needs a userid (at most 31 characters), a groupid (31) or a mode "
          "(7)",
          ":8: error: there are 2 <setinfo>, at most 1 are allowed"}) {
        EXPECT_THAT(checked.out, HasSubstr("/etc/kesta_sys/network/define.xml" + line));
    }
    define("<setinfo><file path=\"/a\"/></setinfo>", "id=\"another\"");
    EXPECT_THAT(ctl(0, "group check network").out, HasSubstr("error: the id is \"another\", and the group is network"));
    const json findings = ctl(0, "--json group check network").json().at("result").at("findings");
    EXPECT_EQ(findings.at(0).at("kind"), "error");
    EXPECT_EQ(ctl(0, "group check none").code, 1);
    EXPECT_EQ(ctl(0, "group check 'a b'").code, 2);
}

TEST_F(KestactlGroup, CheckFindsWhatSavingAndApplyingWouldRefuse)
{
    define(
        "<setinfo>\n<file path=\"/etc/a\"><link path=\"/l$(id)\"/><link path=\"/l;x\"/><link path=\"/l x\"/>\n"
        "<permission userid=\"nobody-of-that-name\" groupid=\"none-either\" mode=\"8x\"/></file>\n"
        "<file path=\"/etc/b c\"><link path=\"/l\"/></file>\n<file path=\"/etc/d e\"/>\n"
        "<file path=\"/etc/../x\"/>\n<file path=\"/etc/f\"><permission mode=\"1777\"/></file>\n<file path=\"/etc//g\"/>\n"
        "<file path=\"/etc/.a.kesta-new/b\"/></setinfo>");
    const Ran checked = ctl(0, "group check network");
    EXPECT_EQ(checked.code, 1);
    const std::string word = " has a blank or another character that a shell would act on";
    for (const std::string &line :
         {":3: error: the path of <link>" + word, std::string(":4: note: userid=\"nobody-of-that-name\" is no user"),
          std::string(":4: note: groupid=\"none-either\" is no group"),
          std::string(":4: error: mode=\"8x\" is no mode"), ":5: error: the path of <file>, which has a <link>," + word,
          std::string(":7: note: the path of <file> can't be archived"),
          std::string(":8: error: mode=\"1777\" is no mode"),
          std::string(":9: note: the path of <file> can't be archived"),
          std::string(":10: note: the path of <file> can't be archived")}) {
        EXPECT_THAT(checked.out, HasSubstr(line));
    }
    EXPECT_THAT(checked.out, testing::Not(HasSubstr(":6:"))) << "a blank harms nobody where no command is made of it";
}

TEST_F(KestactlGroup, DefinitionBeyondTheLimitsIsNotRead)
{
    std::string attributes;
    for (int i = 0; i < 50000; ++i) {
        attributes += " a" + std::to_string(i) + "=\"1\"";
    }
    const auto refused = [this](const std::string &text) {
        for (const char *verb : {"check", "show", "apply"}) {
            const Ran run = ctl(0, std::string("group ") + verb + " network");
            EXPECT_EQ(run.code, 1) << verb;
            EXPECT_THAT(run.err, HasSubstr(text));
        }
        EXPECT_THAT(ctl(0, "save network --dry-run").err, HasSubstr(text));
    };
    define("<setinfo><file path=\"/etc/a\"" + attributes + "/></setinfo>");
    refused("a tag of more than 16384 bytes");
    define("<setinfo><file path=\"/etc/a\"/></setinfo><!--" + std::string(1 << 20, 'c') + "-->");
    refused("a text of more than 1048576 bytes");
    write_file(host_path(0, "etc/kesta_sys/network/define.xml"),
               "<!DOCTYPE group [" + std::string(20000, ' ') + "]><group id=\"network\"/>");
    refused("a tag of more than 16384 bytes");
    std::string wide = "\xff\xfe";
    for (const char c : "<group id=\"network\"" + attributes.substr(0, 100000) + "/>") {
        wide += {c, '\0'};
    }
    write_file(host_path(0, "etc/kesta_sys/network/define.xml"), wide);
    refused("neither UTF-8 nor ISO 8859");
    // Long comments and texts are no tags.
    define("<!-- " + std::string(100000, '<') + " --><setinfo><file path=\"/etc/a\"/></setinfo>");
    EXPECT_EQ(ctl(0, "group check network").code, 0);
    EXPECT_EQ(on(0, "rm /etc/kesta_sys/network/define.xml && mkfifo /etc/kesta_sys/network/define.xml").code, 0);
    EXPECT_THAT(ctl(0, "group check network").err, HasSubstr("is no plain file"));
}

TEST_F(KestactlGroup, NothingRawReachesTheTerminal)
{
    define("<setinfo><file path=\"/etc/a\" cntmode=\"&#x9b;31m&#x7f;\"/></setinfo>");
    EXPECT_THAT(ctl(0, "group check network").out, HasSubstr("cntmode=\"\\u009b31m\\x7f\" is no number"));
    const Ran in_json = ctl(0, "--json group check network");
    EXPECT_EQ(in_json.out.find_first_of("\x7f\x9b\xc2"), std::string::npos);
    EXPECT_THAT(in_json.json().at("result").at("findings").at(0).at("text").get<std::string>(), HasSubstr("\xc2\x9b"
                                                                                                          "31m\x7f"));
}

TEST_F(KestactlGroup, ShowTellsWhatTheReaderRead)
{
    define(
        "<setinfo><file path=\"/etc/a\" rbmode=\"2\"><link path=\"/l\"/>"
        "<permission userid=\"root\" mode=\"644\"/></file></setinfo>"
        "<script><restore reboot=\"1\"><post-script path=\"/s\" order=\"3\"/></restore></script>",
        "id=\"network\" operation=\"update\"");
    const json shown = ctl(0, "--json group show network").json().at("result");
    EXPECT_EQ(shown.at("operation"), "update");
    const json file = shown.at("files").at(0);
    EXPECT_EQ(file.at("path"), "/etc/a");
    EXPECT_EQ(file.at("links"), json::array({"/l"}));
    EXPECT_EQ(file.at("rbmode"), 2);
    EXPECT_EQ(shown.at("restore").at("reboot"), 1);
    EXPECT_EQ(shown.at("restore").at("scripts").at(0).at("post_order"), 3);
    const Ran text = ctl(0, "group show network");
    EXPECT_THAT(text.out, HasSubstr("/etc/a  owner root, group -, mode 644\n    link /l\n"));
    EXPECT_THAT(text.out, HasSubstr("after: /s\n"));
    define("<setinfo/>");
    const Ran refused = ctl(0, "group show network");
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.err, HasSubstr("kestactl group check network"));
}

TEST_F(KestactlGroup, ApplyDoesWhatTheDryRunSaid)
{
    EXPECT_EQ(on(0,
                 "echo a > /etc/app-a; chmod 600 /etc/app-a; echo b > /etc/app-b; "
                 "chmod 644 /etc/app-b")
                  .code,
              0);
    define(
        "<setinfo><file path=\"/etc/app-a\"><link path=\"/etc/app-l\"/>"
        "<permission userid=\"daemon\" groupid=\"0\" mode=\"0640\"/></file>"
        "<file path=\"/etc/app-b\"><permission mode=\"644\"/></file></setinfo>");
    const auto before = snapshot();
    const json plan = ctl(0, "--json group apply network --dry-run").json().at("result");
    EXPECT_TRUE(snapshot() == before) << "a dry run wrote something";
    ASSERT_EQ(plan.at("steps").size(), 1u) << "one file is as it should be";
    EXPECT_EQ(plan.at("steps").at(0).at("what"), "/etc/app-a: link /etc/app-l, owner 0 -> daemon, mode 0600 -> 0640");
    EXPECT_EQ(ctl(0, "group apply network").code, 0);
    EXPECT_EQ(on(0, "stat -c '%U %G %a' /etc/app-a; readlink /etc/app-l").out, "daemon root 640\n/etc/app-a\n");
    EXPECT_EQ(ctl(0, "group apply network").out, "Every file is as the definition says.\n");

    EXPECT_EQ(on(0, "rm /etc/app-b").code, 0);
    const Ran missing = ctl(0, "group apply network");
    EXPECT_EQ(missing.code, 1);
    EXPECT_THAT(missing.err, HasSubstr("There is no /etc/app-b"));
    define(
        "<setinfo><file path=\"/etc/app-a\"><permission userid=\"nobody-of-that-name\"/></file>"
        "</setinfo>");
    EXPECT_EQ(ctl(0, "group apply network").code, 4);
}

TEST_F(KestactlGroup, ApplyFollowsNobodysLink)
{
    define(
        "<setinfo><file path=\"/opt/theirs/file\"><link path=\"/opt/theirs/alias\"/>"
        "<permission userid=\"nobody\" groupid=\"nogroup\" mode=\"666\"/></file></setinfo>");
    const std::string show = "stat -c '%U %G %a' /opt/private/secret";
    EXPECT_EQ(on(0,
                 "mkdir -m 700 /opt/private && echo secret > /opt/private/secret && chmod 600 /opt/private/secret && "
                 "mkdir /opt/theirs && chown nobody /opt/theirs && ln -s /opt/private/secret /opt/theirs/file && "
                 "chown -h nobody /opt/theirs/file")
                  .code,
              0);
    for (const std::string &plant :
         {std::string("true"), std::string("chown -h root /opt/theirs/file"),
          std::string("rm /opt/theirs/file; ln /opt/private/secret /opt/theirs/file"),
          std::string("rm /opt/theirs/file; mkfifo /opt/theirs/file"),
          std::string("rm -r /opt/theirs; ln -s /opt/private /opt/theirs; cp /opt/private/secret /opt/private/file; "
                      "chown -h nobody /opt/theirs")}) {
        EXPECT_EQ(on(0, plant).code, 0);
        for (const char *command : {"group apply network --dry-run", "group apply network"}) {
            const Ran refused = on(0, std::string("timeout 60 kestactl ") + command);
            EXPECT_EQ(refused.code, 1) << plant << refused.out;
            EXPECT_THAT(refused.err, HasSubstr("/opt/theirs/file"));
        }
        EXPECT_EQ(on(0, show).out, "root root 600\n") << plant;
    }
}

TEST_F(KestactlGroup, ApplyFollowsLinksThatRootAloneCanHaveMade)
{
    define("<setinfo><file path=\"/etc/moved/file\"><permission mode=\"640\"/></file></setinfo>");
    EXPECT_EQ(on(0,
                 "mkdir /opt/elsewhere && echo x > /opt/elsewhere/real && ln -s real /opt/elsewhere/file && "
                 "ln -s /opt/elsewhere /etc/moved && kestactl group apply network && stat -c %a /opt/elsewhere/real")
                  .out,
              "Done: /etc/moved/file: mode 0644 -> 0640\n640\n");
}

TEST_F(KestactlGroup, ApplyRunsNoShell)
{
    define(
        "<setinfo><file path=\"/etc/app-a\"><link path=\"/etc/a link; echo x &gt; $(touch bad)\"/></file></setinfo>");
    EXPECT_EQ(on(0,
                 "cd /opt && echo a > /etc/app-a && kestactl group apply network && ls /opt && "
                 "readlink '/etc/a link; echo x > $(touch bad)'")
                  .code,
              0);
    EXPECT_EQ(on(0, "ls /opt/bad /bad /etc/bad").code, 2);
}
