#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <libxml/xpath.h>
#include <string.h>

#include <memory>

#include "library_test.h"

// Of the address sanitizer, where it is built in.
extern "C" __attribute__((weak)) void __lsan_disable();
extern "C" __attribute__((weak)) void __lsan_enable();

using namespace test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string definition_path = "/etc/kesta_sys/network/define.xml";

std::string repeated(int count, const std::string &text)
{
    std::string all;
    for (int i = 0; i < count; ++i) {
        all += text;
    }
    return all;
}

std::string root(const std::string &inside, const std::string &attributes = "id='network'")
{
    return "<?xml version='1.0'?>\n<group " + attributes + ">" + inside + "</group>\n";
}

std::string setinfo(const std::string &inside = "<file path='/etc/hosts'/>")
{
    return "<setinfo>" + inside + "</setinfo>";
}

std::string file(const std::string &inside, const std::string &attributes = "path='/etc/hosts'")
{
    return setinfo("<file " + attributes + ">" + inside + "</file>");
}

}  // namespace

class Definition : public LibraryTest {
protected:
    Definition() : record(std::make_unique<KESTA_BACKUP_FILE>())
    {
        memset(static_cast<void *>(record.get()), 0x5a, sizeof(*record));
        kestal_init_xml();
    }

    int read(const std::string &xml, const std::string &group = "network")
    {
        run_shell("mkdir -p /etc/kesta_sys/" + group);
        write_file("/etc/kesta_sys/" + group + "/define.xml", xml);
        p().traces.clear();
        return kestal_read_backupfile(group.c_str(), record.get());
    }
    // Contents that are refused: the whole is -211, and this is the first of the level-1 lines.
    void expect_refused(const std::string &xml, const std::string &line)
    {
        EXPECT_EQ(read(xml), -211) << xml;
        ASSERT_FALSE(p().texts(1).empty()) << xml;
        EXPECT_EQ(p().texts(1).front(), line);
        EXPECT_EQ(p().texts(1).back(), "XML Parse Error.rtn=-911");
    }
    const KESTA_BACKUP_FILE_PATH &entry(int index) const { return record->setfile[index]; }

    std::unique_ptr<KESTA_BACKUP_FILE> record;
};

// ------------------------------------------------------------------------------------ the whole

TEST_F(Definition, XmlIsEndedAndCanBeStartedAgain)
{
    EXPECT_EQ(kestal_term_xml(), 0);
    EXPECT_EQ(kestal_init_xml(), 0);
    EXPECT_EQ(read(root(setinfo("<file path='/etc/a'/>"))), 0);
    EXPECT_STREQ(entry(0).pathname, "/etc/a");
}

TEST_F(Definition, EverythingIsReadIntoItsPlace)
{
    EXPECT_EQ(read(root(setinfo("<file path='/etc/a' cntmode='1' rbmode='2' distribution='3' "
                                "diffreboot='4'><link path='/l/1'/><permission userid='root' "
                                "groupid='0' mode='644'/><link path='/l/2'/></file>"
                                "<file path='/etc/b*'/>") +
                            "<script><backup reboot='5'><pre-script path='/s/pre' order='6'/>"
                            "<re-post-script path='/s/re' order='8'/></backup>"
                            "<restore reboot='9'><post-script path='/s/post' order='7'/></restore>"
                            "</script>",
                        "id='network' operation='addremove' type='kind'")),
              0);
    EXPECT_STREQ(record->groupname, "network");
    EXPECT_STREQ(record->operation, "addremove");
    EXPECT_STREQ(record->type, "kind");
    EXPECT_STREQ(entry(0).pathname, "/etc/a");
    EXPECT_EQ(entry(0).cntmode, 1);
    EXPECT_EQ(entry(0).rbmode, 2);
    EXPECT_EQ(entry(0).distribution, 3);
    EXPECT_EQ(entry(0).diffreboot, 4);
    EXPECT_STREQ(entry(0).linkpath[0], "/l/1");
    EXPECT_STREQ(entry(0).linkpath[1], "/l/2");
    EXPECT_STREQ(entry(0).linkpath[2], "");
    EXPECT_STREQ(entry(0).owner, "root");
    EXPECT_STREQ(entry(0).group, "0");
    EXPECT_STREQ(entry(0).filemode, "644");
    EXPECT_STREQ(entry(1).pathname, "/etc/b*") << "a path may hold a wild-card";
    EXPECT_STREQ(entry(2).pathname, "");
    const KESTA_BACKUP_FILE_SCRIPT &script = record->script;
    EXPECT_EQ(script.back_reboot, 5);
    EXPECT_STREQ(script.back_script[0].pre_script, "/s/pre");
    EXPECT_EQ(script.back_script[0].pre_order, 0);
    EXPECT_EQ(script.back_script[0].post_order, 6) << "the pre-script's order";
    EXPECT_STREQ(script.back_script[0].re_post_script, "/s/re");
    EXPECT_EQ(script.back_script[0].re_post_order, 8);
    EXPECT_EQ(script.restore_reboot, 9);
    EXPECT_STREQ(script.restore_script[0].post_script, "/s/post");
    EXPECT_EQ(script.restore_script[0].post_order, 7);
    EXPECT_EQ(p().traces.back(), (Trace{5, "BackUp Ini File Access Succeed.", "../common/kestal_read_backupfile.cpp"}));
    EXPECT_THAT(p().texts(1), IsEmpty());
    for (const char byte : record->filler) {
        EXPECT_EQ(byte, 0);
    }
}

TEST_F(Definition, SmallestOneLeavesTheRestZero)
{
    EXPECT_EQ(read(root(setinfo())), 0);
    KESTA_BACKUP_FILE expected{};
    strcpy(expected.groupname, "network");
    strcpy(expected.setfile[0].pathname, "/etc/hosts");
    EXPECT_EQ(memcmp(record.get(), &expected, sizeof(expected)), 0);
}

TEST_F(Definition, ArgumentsAreChecked)
{
    EXPECT_EQ(kestal_read_backupfile(nullptr, nullptr), -931);
    EXPECT_EQ(p().traces.back().text, "[kestal_read_backupfile] Argument Check Error [gname].");
    EXPECT_EQ(kestal_read_backupfile("network", nullptr), -931);
    EXPECT_EQ(p().traces.back().text, "[kestal_read_backupfile] Argument Check Error [bkfile].");
    const std::string longest(255 - strlen("/etc/kesta_sys//define.xml"), 'g');
    EXPECT_EQ(kestal_read_backupfile(longest.c_str(), record.get()), -211) << "it fits, and is not there";
    EXPECT_EQ(kestal_read_backupfile((longest + "g").c_str(), record.get()), -931);
    EXPECT_EQ(p().traces.back().text, "[kestal_read_backupfile] Argument Check Error [gname].");
}

TEST_F(Definition, MissingFileIsTold)
{
    EXPECT_EQ(kestal_read_backupfile("network", record.get()), -211);
    EXPECT_THAT(p().texts(1), ElementsAre("[kestal_read_backupfile] BackFile Nothing. errno=2"));
    EXPECT_EQ(record->groupname[0], 0) << "cleared";
}

TEST_F(Definition, WhatIsNoXmlIsRefusedWithoutAWordOnStderr)
{
    testing::internal::CaptureStderr();
    for (const std::string text : {"", "no xml", "<group id='network'>", "<a/><b/>"}) {
        EXPECT_EQ(read(text), -211) << text;
        EXPECT_THAT(p().texts(1), ElementsAre("[start_xml_parse] xmlParseFile ERROR", "XML Parse Not Start.rtn=-211"));
    }
    run_shell("rm " + definition_path + " && mkdir " + definition_path);
    EXPECT_EQ(kestal_read_backupfile("network", record.get()), -211);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Definition, AnotherGroupIsRefusedAfterAFullReading)
{
    EXPECT_EQ(read(root(setinfo(), "id='other'")), -914);
    EXPECT_THAT(p().texts(1), ElementsAre("[kestal_read_backupfile] GroupName Irrigal(network,other)."));
    EXPECT_STREQ(entry(0).pathname, "/etc/hosts");
    EXPECT_EQ(read(root(setinfo(), "id='Network'")), -914) << "case counts";
    EXPECT_EQ(read(root(setinfo(), "id=''")), -914);
    const std::string sixteen(16, 'g');
    EXPECT_EQ(read(root(setinfo(), "id='" + sixteen.substr(1) + "'"), sixteen), -914);
    EXPECT_EQ(read(root(setinfo(), "id='" + sixteen + "'"), sixteen), -211) << "the id is too long";
}

// ------------------------------------------------------------------------------------ the root

TEST_F(Definition, RootMustBeOneGroupWithAnId)
{
    expect_refused("<groups id='network'>" + setinfo() + "</groups>", "[xml_get_group] NodeNum ERROR nodenum=0");
    expect_refused("<x:group xmlns:x='urn:x' id='network'>" + setinfo() + "</x:group>",
                   "[xml_get_group] NodeNum ERROR nodenum=0");
    expect_refused(root(setinfo(), ""), "[xml_get_group] GetNode(id) ERROR rtn=-911");
    expect_refused(root(setinfo(), "id='" + std::string(16, 'i') + "'"),
                   "[xml_get_property] Len Error(nodelen=17 buflen=16).");
    EXPECT_THAT(p().texts(1), testing::Contains("[xml_get_group] GetNode(id) ERROR rtn=-1"));
    EXPECT_THAT(p().texts(1), testing::Contains("[execute_xml_parse] Get <group> ERRORrtn=-911"));
}

TEST_F(Definition, OperationAndTypeAreOptionalAndCutToNothing)
{
    const std::string fits(15, 'o');
    EXPECT_EQ(read(root(setinfo(), "id='network' operation='" + fits + "' type='" + fits + "'")), 0);
    EXPECT_EQ(record->operation, fits);
    EXPECT_EQ(record->type, fits);
    EXPECT_EQ(read(root(setinfo(), "id='network' operation='" + fits + "o' type='" + fits + "t'")), 0);
    EXPECT_STREQ(record->operation, "");
    EXPECT_STREQ(record->type, "");
    EXPECT_TRUE(p().traced(5, "GetNode(operation) Nothing. rtn=-1"));
    EXPECT_TRUE(p().traced(5, "GetNode(type) Nothing. rtn=-1"));
    EXPECT_EQ(read(root(setinfo())), 0);
    EXPECT_TRUE(p().traced(5, "GetNode(operation) Nothing. rtn=-911"));
}

TEST_F(Definition, OtherElementsTextAndCommentsAreIgnored)
{
    EXPECT_EQ(read(root("text<!-- a comment --><other><setinfo/></other><?setinfo x?>" +
                        setinfo("text<file path='/etc/a'><?link path='x'?><x:link xmlns:x='u' "
                                "path='/no'/><unknown/><![CDATA[<link/>]]></file><folder/>"))),
              0);
    EXPECT_STREQ(entry(0).pathname, "/etc/a");
    EXPECT_STREQ(entry(0).linkpath[0], "");
    EXPECT_STREQ(entry(1).pathname, "");
}

// ------------------------------------------------------------------------------------ files

TEST_F(Definition, ExactlyOneSetinfo)
{
    expect_refused(root(""), "[xml_get_setinfo] NodeNum ERROR nodenum=0");
    expect_refused(root(setinfo() + setinfo()), "[xml_get_setinfo] NodeNum ERROR nodenum=2");
    EXPECT_THAT(p().texts(1), testing::Contains("[execute_xml_parse] Get <setinfo> ERRORrtn=-911"));
}

TEST_F(Definition, UpToSixtyFourFiles)
{
    expect_refused(root(setinfo("")), "[xml_get_file] NodeNum ERROR nodenum=0");
    for (const int count : {1, 63, 64}) {
        EXPECT_EQ(read(root(setinfo(repeated(count, "<file path='/f'/>")))), 0);
        EXPECT_STREQ(entry(count - 1).pathname, "/f");
        if (count < 64) {
            EXPECT_STREQ(entry(count).pathname, "");
        }
    }
    expect_refused(root(setinfo(repeated(65, "<file path='/f'/>"))), "[xml_get_file] GetNode(Path) FileMax.");
    EXPECT_STREQ(record->script.back_script[0].pre_script, "") << "nothing behind the 64th slot";
}

TEST_F(Definition, PathIsRequiredAndLimited)
{
    expect_refused(root(setinfo("<file/>")), "[xml_get_file] GetNode(Path) ERROR rtn=-911");
    const std::string longest(255, 'p');
    EXPECT_EQ(read(root(file("", "path='" + longest + "'"))), 0);
    EXPECT_EQ(entry(0).pathname, longest);
    expect_refused(root(file("", "path='" + longest + "p'")), "[xml_get_property] Len Error(nodelen=257 buflen=256).");
    // Bytes count, not characters.
    EXPECT_EQ(read(root(file("", "path='" + repeated(127, "\xc3\xa9") + "'"))), 0);
    EXPECT_EQ(read(root(file("", "path='" + repeated(128, "\xc3\xa9") + "'"))), -211);
    EXPECT_EQ(read(root(file("", "path=' /etc/a '"))), 0);
    EXPECT_STREQ(entry(0).pathname, " /etc/a ") << "taken whole";
}

TEST_F(Definition, FlagsAreDigitsOrZero)
{
    const std::pair<const char *, int> cases[] = {{"7", 7},  {"007", 7}, {"", 0},     {"-1", 0},
                                                  {"+1", 0}, {"1 ", 0},  {"0x10", 0}, {"2147483647", 2147483647}};
    for (const auto &[text, value] : cases) {
        const std::string flags = std::string("path='/f' cntmode='") + text + "' rbmode='" + text + "' distribution='" +
                                  text + "' diffreboot='" + text + "'";
        EXPECT_EQ(read(root(file("", flags))), 0);
        EXPECT_EQ(entry(0).cntmode, value) << text;
        EXPECT_EQ(entry(0).rbmode, value) << text;
        EXPECT_EQ(entry(0).distribution, value) << text;
        EXPECT_EQ(entry(0).diffreboot, value) << text;
    }
}

TEST_F(Definition, UpToEightLinks)
{
    for (const int count : {7, 8}) {
        EXPECT_EQ(read(root(file(repeated(count, "<link path='/l'/>")))), 0);
        EXPECT_STREQ(entry(0).linkpath[count - 1], "/l");
    }
    expect_refused(root(file(repeated(9, "<link path='/l'/>"))), "[xml_get_file] GetNode(Path) LinkMax.");
    EXPECT_STREQ(entry(0).owner, "") << "nothing behind the 8th slot";
}

TEST_F(Definition, LinkHasAPathWithoutWildcard)
{
    expect_refused(root(file("<link/>")), "[xml_get_file] GetNode(Path) ERROR rtn=-911");
    const std::string longest(255, 'l');
    EXPECT_EQ(read(root(file("<link path='" + longest + "'/>"))), 0);
    EXPECT_EQ(entry(0).linkpath[0], longest);
    expect_refused(root(file("<link path='" + longest + "l'/>")),
                   "[xml_get_property] Len Error(nodelen=257 buflen=256).");
    expect_refused(root(file("<link path='/l*'/>")),
                   "[xml_get_file] Error:The wild-card is included in the link path.");
    EXPECT_EQ(read(root(file("<link path='/l?[a]'/>"))), 0) << "only * counts";
}

TEST_F(Definition, OnePermissionWithAtLeastOneAttribute)
{
    EXPECT_EQ(read(root(file("<permission mode='644'/>"))), 0);
    EXPECT_TRUE(p().traced(5, "[xml_get_file] There is <permission>."));
    expect_refused(root(file("<permission/>")), "[xml_get_file] Permission Option ERROR");
    expect_refused(root(file(repeated(2, "<permission mode='644'/>"))), "[xml_get_file] GetNode(Path) PermissionMax.");
    const std::string owner(31, 'o');
    const std::string mode(7, '1');
    EXPECT_EQ(read(root(file("<permission userid='" + owner + "' groupid='" + owner + "' mode='" + mode + "'/>"))), 0);
    EXPECT_EQ(entry(0).owner, owner);
    EXPECT_EQ(entry(0).group, owner);
    EXPECT_EQ(entry(0).filemode, mode);
    EXPECT_EQ(read(root(file("<permission userid='root' groupid='" + owner + "g' mode='" + mode + "1'/>"))), 0)
        << "what is too long counts as missing";
    EXPECT_STREQ(entry(0).group, "");
    EXPECT_STREQ(entry(0).filemode, "");
    EXPECT_EQ(read(root(file("<permission userid='" + owner + "o' groupid='" + owner + "g' mode='" + mode + "1'/>"))),
              -211);
    EXPECT_EQ(read(root(file("<permission mode=''/>"))), 0) << "an empty one is there";
}

// ------------------------------------------------------------------------------------ scripts

TEST_F(Definition, ScriptsAreOptional)
{
    EXPECT_EQ(read(root(setinfo())), 0);
    EXPECT_TRUE(p().traced(5, "[xml_get_script] NodeNum=0"));
    EXPECT_EQ(read(root(setinfo() + "<script/>")), 0);
    EXPECT_TRUE(p().traced(5, "[xml_get_com_in_script] path = /group/script/backup"));
    EXPECT_TRUE(p().traced(5, "[xml_get_com_in_script] path = /group/script/restore"));
    EXPECT_EQ(read(root(setinfo() + "<script><backup/></script>")), 0);
    EXPECT_TRUE(p().traced(5, "[xml_get_com_in_script] GetNode(back_reboot) Nothing. rtn=-911"));
    EXPECT_EQ(read(root(setinfo() + "<script><restore reboot='x'/></script>")), 0);
    EXPECT_TRUE(p().traced(5, "[xml_get_com_in_script] GetNode(back_reboot) Nothing. rtn=-1"))
        << "the same text on both sides";
    expect_refused(root(setinfo() + "<script/><script/>"), "[xml_get_script] NodeNum ERROR nodenum=2");
    EXPECT_THAT(p().texts(1), testing::Contains("[execute_xml_parse] Get <script> ERRORrtn=-911"));
    for (const std::string side : {"backup", "restore"}) {
        expect_refused(root(setinfo() + "<script><" + side + "/><" + side + "/></script>"),
                       "[xml_get_com_in_script] NodeNum ERROR nodenum=2");
        EXPECT_THAT(p().texts(1), testing::Contains("[xml_get_script] kestal_xml_get_" + side + " ERROR rtn=-911"));
    }
}

TEST_F(Definition, UpToFourScriptsOfAKindOnASide)
{
    const std::pair<const char *, const char *> kinds[] = {{"pre-script", "Pre-Script"},
                                                           {"post-script", "Post-Script"},
                                                           {"re-post-script", "Re-Post-Script"}};
    for (const auto &[element, title] : kinds) {
        for (const std::string side : {"backup", "restore"}) {
            const auto with = [&, e = element](int count) {
                return root(setinfo() + "<script><" + side + ">" +
                            repeated(count, std::string("<") + e + " path='/s'/>") + "</" + side + "></script>");
            };
            EXPECT_EQ(read(with(3)), 0);
            EXPECT_EQ(read(with(4)), 0);
            expect_refused(with(5), std::string("[xml_get_com_in_script] GetNode(Path) ") + title + " Max. rtn=0");
        }
    }
    EXPECT_EQ(read(root(setinfo() + "<script><backup>" +
                        repeated(4,
                                 "<pre-script path='/a'/><post-script path='/b'/>"
                                 "<re-post-script path='/c'/>") +
                        "</backup></script>")),
              0)
        << "each kind is counted by itself";
    EXPECT_STREQ(record->script.back_script[3].re_post_script, "/c");
}

TEST_F(Definition, ScriptHasAPathWithoutWildcard)
{
    const std::string longest(511, 's');
    const std::tuple<const char *, const char *, const char *> kinds[] = {{"pre-script", "Pre-Script", "pre-script"},
                                                                          {"post-script", "Post-Script", "post-script"},
                                                                          {"re-post-script", "Re-Post-Script",
                                                                           "Re-Post-script"}};
    for (const auto &[element, title, wildcard] : kinds) {
        const auto with = [e = element](const std::string &attributes) {
            return root(setinfo() + "<script><restore><" + e + " " + attributes + "/></restore></script>");
        };
        expect_refused(with(""), std::string("[xml_get_com_in_script] GetNode(Path) ") + title + " ERROR rtn=-911");
        EXPECT_EQ(read(with("path='" + longest + "'")), 0);
        expect_refused(with("path='" + longest + "s'"), "[xml_get_property] Len Error(nodelen=513 buflen=512).");
        expect_refused(with("path='/s*'"),
                       std::string("[xml_get_com_in_script] Error:The wild-card is included in the ") + wildcard +
                           " path.");
    }
}

TEST_F(Definition, OrderOfAPreScriptLandsInPostOrder)
{
    const auto scripts = [this](const std::string &inside) {
        EXPECT_EQ(read(root(setinfo() + "<script><backup>" + inside + "</backup></script>")), 0);
        return record->script.back_script;
    };
    const KESTA_BACKUP_FILE_SCRIPT_SUB *slots = scripts("<pre-script path='/a' order='5'/>");
    EXPECT_EQ(slots[0].post_order, 5);
    EXPECT_EQ(slots[0].pre_order, 0);
    slots = scripts("<pre-script path='/a' order='5'/><post-script path='/b' order='2'/>");
    EXPECT_EQ(slots[0].post_order, 2) << "the later one decides";
    slots = scripts("<post-script path='/b' order='2'/><pre-script path='/a' order='5'/>");
    EXPECT_EQ(slots[0].post_order, 5);
    slots = scripts("<post-script path='/b' order='2'/><pre-script path='/a'/>");
    EXPECT_EQ(slots[0].post_order, 2) << "one without an order sets the other field";
    slots = scripts("<pre-script path='/a' order='5'/><post-script path='/b' order='x'/>");
    EXPECT_EQ(slots[0].post_order, 0);
    slots = scripts("<re-post-script path='/c' order='3'/><re-post-script path='/d' order='-3'/>");
    EXPECT_EQ(slots[0].re_post_order, 3);
    EXPECT_EQ(slots[1].re_post_order, 0);
}

// ------------------------------------------------------------------------------------ the parts

class DefinitionParts : public Definition {
protected:
    void open(const std::string &xml)
    {
        write_file("/tmp/definition.xml", xml);
        char path[] = "/tmp/definition.xml";
        ASSERT_EQ(kestal_start_xml_parse(path, record.get(), &doc, &context), 0);
    }
    ~DefinitionParts() override
    {
        if (doc) {
            EXPECT_EQ(kestal_end_xml_parse(&doc, &context), 0);
        }
    }
    xmlDocPtr doc = nullptr;
    xmlXPathContextPtr context = nullptr;
};

TEST_F(DefinitionParts, StepsAreCallsOfTheirOwn)
{
    open(root(setinfo()));
    EXPECT_EQ(kestal_execute_xml_parse(&doc, &context, record.get()), 0);
    EXPECT_EQ(kestal_end_xml_parse(&doc, &context), 0);
    EXPECT_EQ(doc, nullptr);
    EXPECT_EQ(kestal_end_xml_parse(&doc, &context), -931) << "frees nothing";
    EXPECT_EQ(p().traces.back().text, "[end_xml_parse] Argument ERROR");
}

TEST_F(DefinitionParts, ArgumentsAreChecked)
{
    open(root(setinfo()));
    char path[] = "/tmp/definition.xml";
    xmlDocPtr other = nullptr;
    xmlXPathContextPtr other_context = nullptr;
    EXPECT_EQ(kestal_start_xml_parse(nullptr, record.get(), &other, &other_context), -931);
    EXPECT_EQ(kestal_start_xml_parse(path, nullptr, &other, &other_context), -931);
    EXPECT_EQ(p().traces.back().text, "[start_xml_parse] Backup File Struct ERROR");
    EXPECT_EQ(kestal_start_xml_parse(path, record.get(), nullptr, &other_context), -931);
    using Part = int (*)(xmlDocPtr *, xmlXPathContextPtr *, KESTA_BACKUP_FILE *);
    const Part parts[] = {kestal_execute_xml_parse,
                          kestal_xml_get_group,
                          kestal_xml_get_setinfo,
                          kestal_xml_get_file,
                          kestal_xml_get_script,
                          [](xmlDocPtr *d, xmlXPathContextPtr *c, KESTA_BACKUP_FILE *r) {
                              return kestal_xml_get_com_in_script(1, d, c, r);
                          }};
    for (const Part part : parts) {
        p().traces.clear();
        EXPECT_EQ(part(nullptr, &context, record.get()), -931);
        EXPECT_EQ(part(&other, &context, record.get()), -931);
        EXPECT_EQ(part(&doc, nullptr, record.get()), -931);
        EXPECT_EQ(part(&doc, &other_context, record.get()), -931);
        EXPECT_EQ(part(&doc, &context, nullptr), -931);
        EXPECT_THAT(p().texts(1), testing::Each(std::string("Argument ERROR")));
        EXPECT_EQ(p().texts(1).size(), 5u);
    }
    for (const int kind : {0, 3, -1}) {
        EXPECT_EQ(kestal_xml_get_com_in_script(kind, &doc, &context, record.get()), -931);
        EXPECT_EQ(p().traces.back().text,
                  "[xml_get_com_in_script] NodeKind Argument ERROR nodekind=" + std::to_string(kind));
    }
}

TEST_F(DefinitionParts, PropertiesByTextAndNumber)
{
    open("<group text='abc' number='41' word='x' empty=''/>");
    xmlNodePtr node = xmlDocGetRootElement(doc);
    char text[8] = "#######";
    EXPECT_EQ(kestal_xml_get_property(&node, "text", text, 4, 0), 0);
    EXPECT_STREQ(text, "abc");
    EXPECT_TRUE(p().traced(5, "[xml_get_property] Get abc.(len=4)"));
    EXPECT_EQ(kestal_xml_get_property(&node, "text", text, 3, 0), -1);
    EXPECT_TRUE(p().traced(1, "[xml_get_property] Len Error(nodelen=4 buflen=3)."));
    EXPECT_EQ(kestal_xml_get_property(&node, "empty", text, 1, 0), 0);
    EXPECT_STREQ(text, "");
    std::int32_t number = 7;
    char *bytes = reinterpret_cast<char *>(&number);
    EXPECT_EQ(kestal_xml_get_property(&node, "number", bytes, 4, 1), 0);
    EXPECT_EQ(number, 41);
    EXPECT_TRUE(p().traced(5, "Get (INT).(len=4)"));
    EXPECT_EQ(kestal_xml_get_property(&node, "number", bytes, 3, 1), -1);
    EXPECT_TRUE(p().traced(1, "[xml_get_property] Len Error(buflen=3)."));
    memcpy(bytes, "wxyz", 4);  // no terminator
    EXPECT_EQ(kestal_xml_get_property(&node, "word", bytes, 4, 1), -1);
    EXPECT_TRUE(p().traced(1, "[xml_get_property] isdigit check ERROR destbuf=wxyz"));
    EXPECT_EQ(memcmp(bytes, "wxyz", 4), 0) << "as it was";
    p().traces.clear();
    EXPECT_EQ(kestal_xml_get_property(&node, "absent", text, 8, 0), -911);
    EXPECT_THAT(p().traces, IsEmpty());
}

TEST_F(DefinitionParts, PropertyChecksItsArguments)
{
    open("<group text='abc'/>");
    xmlNodePtr node = xmlDocGetRootElement(doc);
    xmlNodePtr none = nullptr;
    char text[8];
    EXPECT_EQ(kestal_xml_get_property(nullptr, "text", text, 8, 0), -931);
    EXPECT_EQ(kestal_xml_get_property(&none, "text", text, 8, 0), -931);
    EXPECT_EQ(kestal_xml_get_property(&node, nullptr, text, 8, 0), -931);
    EXPECT_EQ(kestal_xml_get_property(&node, "text", nullptr, 8, 0), -931);
    EXPECT_EQ(p().traces.back().text, "[xml_get_property] Null Argument.");
    EXPECT_EQ(kestal_xml_get_property(&node, "text", text, 0, 0), -931);
    EXPECT_EQ(kestal_xml_get_property(&node, "text", text, -1, 0), -931);
    EXPECT_EQ(kestal_xml_get_property(&node, "text", text, 8, 2), -931);
    EXPECT_EQ(p().traces.back().text, "[xml_get_property] Argument Error(buflen=8, copytype=2).");
}

TEST_F(DefinitionParts, WildcardIsTheStarAlone)
{
    int found = 7;
    const std::pair<const char *, int> cases[] = {{"", 0}, {"/a", 0}, {"*", 1}, {"/a*b", 1}, {"?[a]", 0}};
    for (const auto &[text, expected] : cases) {
        EXPECT_EQ(kestal_check_wildcard(&found, text), 0);
        EXPECT_EQ(found, expected) << text;
    }
    EXPECT_EQ(kestal_check_wildcard(nullptr, nullptr), -931);
    EXPECT_EQ(p().traces.back().text, "[kestal_check_wildcard] Argument Error(check_result).");
    EXPECT_EQ(kestal_check_wildcard(&found, nullptr), -931);
    EXPECT_EQ(p().traces.back().text, "[kestal_check_wildcard] Argument Error(check_string).");
}

// ------------------------------------------------------------------------------------ safety

TEST_F(Definition, NothingIsFetchedForIt)
{
    write_file("/tmp/secret.ent", "/etc/secret");
    write_file("/tmp/external.dtd", "<!ATTLIST group operation CDATA 'fromdtd'>");
    const std::string external =
        "<?xml version='1.0'?><!DOCTYPE group SYSTEM '/tmp/external.dtd' ["
        "<!ENTITY secret SYSTEM '/tmp/secret.ent'><!ENTITY % more SYSTEM '/tmp/external.dtd'> %more;"
        "]><group id='network'><x>&secret;</x>" +
        setinfo() + "</group>";
    // Also where the program asks for entities in its own documents.
    for (const int program_asks : {0, 1}) {
        xmlSubstituteEntitiesDefault(program_asks);
        xmlLoadExtDtdDefaultValue = program_asks;
        EXPECT_EQ(read(external), 0);
        EXPECT_STREQ(record->operation, "") << "no default from an external subset";
        EXPECT_EQ(xmlSubstituteEntitiesDefault(0), program_asks) << "put back";
        EXPECT_EQ(xmlLoadExtDtdDefaultValue, program_asks);
        xmlLoadExtDtdDefaultValue = 0;
    }
    xmlDocPtr doc = nullptr;
    xmlXPathContextPtr context = nullptr;
    for (const char *address : {"http://127.0.0.1/define.xml", "ftp://127.0.0.1/x", "-"}) {
        std::string file = address;
        EXPECT_EQ(kestal_start_xml_parse(file.data(), record.get(), &doc, &context), -211);
        EXPECT_EQ(doc, nullptr);
    }
}

TEST_F(Definition, HandlerOfTheProgramIsPutBack)
{
    static int called = 0;
    xmlSetStructuredErrorFunc(&called, [](void *, xmlErrorPtr) { ++called; });
    EXPECT_EQ(read("<group"), -211);
    EXPECT_EQ(called, 0);
    EXPECT_EQ(xmlStructuredErrorContext, &called);
    xmlSetStructuredErrorFunc(nullptr, nullptr);
}

TEST_F(Definition, ResultsThatCanNotBeHadAreFailures)
{
    const std::string xml = root(setinfo() + "<script><backup/><restore/></script>");
    ASSERT_EQ(read(xml), 0);
    const std::pair<int, const char *> evaluations[] = {
        {0, "[xml_get_group] xmlXPathEvalExpression(/group) ERROR"},
        {1, "[xml_get_setinfo] xmlXPathEvalExpression(/group/setinfo) ERROR"},
        {2, "[xml_get_file] xmlXPathEvalExpression(/group/setinfo/file) ERROR"},
        {3, "[xml_get_script] xmlXPathEvalExpression(/group/script) ERROR"}};
    for (const auto &[before, line] : evaluations) {
        p().fail_kind("xml_eval", before, 1);
        expect_refused(xml, line);
        EXPECT_EQ(p().open_xml_objects, 0);
    }
    for (const int before : {4, 5}) {  // a side that can't be looked for has no scripts
        p().fail_kind("xml_eval", before, 1);
        EXPECT_EQ(read(xml), 0);
        EXPECT_TRUE(p().traced(5, std::string("[xml_get_com_in_script] xmlXPathEvalExpression("
                                              "/group/script/") +
                                      (before == 4 ? "backup" : "restore") + ") Nothing. errno=0"));
    }
    p().fail_kind("xml_context", 0, 1);
    EXPECT_EQ(read(xml), -211);
    EXPECT_TRUE(p().traced(1, "[start_xml_parse] xmlXPathNewContext ERROR"));
    EXPECT_EQ(p().open_xml_objects, 0) << "the document is freed";
    p().fail_kind("xml_parse", 0, 1);
    EXPECT_EQ(read(xml), -211);
}

namespace {

long allocations;
long failing;

// libxml2 2.9 goes on with what it has freed when the stack of an evaluation can't be had: not ours to
// survive.
constexpr size_t evaluation_stack = 10 * sizeof(void *);

bool fails_now() { return ++allocations == failing; }
void *failing_malloc(size_t size) { return size != evaluation_stack && fails_now() ? nullptr : malloc(size); }
void *failing_realloc(void *memory, size_t size) { return fails_now() ? nullptr : realloc(memory, size); }
char *failing_strdup(const char *text) { return fails_now() ? nullptr : strdup(text); }

}  // namespace

// libxml2 itself leaves memory behind where an expression can't be compiled: that is not looked at. What
// it has handed out is.
TEST_F(Definition, MemoryThatRunsOutInTheXmlLibraryIsAFailureAndNothingStaysOpen)
{
    const std::string xml = root(setinfo("<file path='/a'><link path='/l'/><permission mode='1'/></file>") +
                                 "<script><backup><pre-script path='/s' order='1'/></backup></script>");
    ASSERT_EQ(read(xml), 0);
    xmlFreeFunc free_before;
    xmlMallocFunc malloc_before;
    xmlReallocFunc realloc_before;
    xmlStrdupFunc strdup_before;
    xmlMemGet(&free_before, &malloc_before, &realloc_before, &strdup_before);
    xmlMemSetup(free, failing_malloc, failing_realloc, failing_strdup);
    if (__lsan_disable) {
        __lsan_disable();
    }
    int failures = 0;
    for (failing = 1;; ++failing) {
        allocations = 0;
        const int result = kestal_read_backupfile("network", record.get());
        if (allocations < failing) {
            EXPECT_EQ(result, 0);
            break;
        }
        failures += result != 0;
        EXPECT_TRUE(result == 0 || result == -211) << failing;
        EXPECT_EQ(p().open_xml_objects, 0) << failing;
    }
    if (__lsan_enable) {
        __lsan_enable();
    }
    xmlMemSetup(free_before, malloc_before, realloc_before, strdup_before);
    EXPECT_GT(failures, 20);
}
