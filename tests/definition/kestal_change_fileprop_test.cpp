#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "library_test.h"

using namespace test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string folder = "/tmp/properties/";

struct stat status_of(const std::string &path)
{
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status;
}

std::string target_of(const std::string &link)
{
    char target[256] = "";
    EXPECT_GE(readlink(link.c_str(), target, sizeof(target) - 1), 0) << link;
    return target;
}

}  // namespace

class FileProperties : public LibraryTest {
protected:
    FileProperties() : definition(std::make_unique<KESTA_BACKUP_FILE>())
    {
        run_shell("rm -rf " + folder + " && mkdir -p " + folder);
        p().run_system = true;
        add(0, "a");
    }
    // An entry for a file that is there.
    KESTA_BACKUP_FILE_PATH &add(int index, const std::string &name)
    {
        write_file(folder + name, name);
        return entry(index, name);
    }
    KESTA_BACKUP_FILE_PATH &entry(int index, const std::string &name)
    {
        KESTA_BACKUP_FILE_PATH &file = definition->setfile[index];
        strcpy(file.pathname, (folder + name).c_str());
        return file;
    }
    int apply(int controller = 0) { return kestal_change_fileprop(definition.get(), controller); }

    std::unique_ptr<KESTA_BACKUP_FILE> definition;
    std::string a = folder + "a";
};

TEST_F(FileProperties, LinksOwnerGroupAndModeInThisOrder)
{
    KESTA_BACKUP_FILE_PATH &file = definition->setfile[0];
    strcpy(file.linkpath[0], (folder + "l1").c_str());
    strcpy(file.linkpath[7], (folder + "l8").c_str());
    strcpy(file.owner, "daemon");
    strcpy(file.group, "12");
    strcpy(file.filemode, "0640");
    EXPECT_EQ(apply(), 0);
    EXPECT_EQ(target_of(folder + "l1"), a);
    EXPECT_EQ(target_of(folder + "l8"), a);
    EXPECT_EQ(status_of(a).st_uid, 1u);
    EXPECT_EQ(status_of(a).st_gid, 12u);
    EXPECT_EQ(mode_of(a), 0640u);
    const std::string l1 = "rm " + folder + "l1; ln -s " + a + " " + folder + "l1 > /dev/null 2>&1";
    EXPECT_EQ(p().system_commands.front(), l1);
    EXPECT_EQ(p().system_commands.size(), 2u);
    EXPECT_THAT(p().texts(4), testing::Contains("[change_fileprop] [0/64] file=" + a));
    std::vector<std::string> told;
    for (const std::string &text : p().texts(5)) {
        if (text.rfind("[change_fileprop]", 0) == 0) {
            told.push_back(text.substr(18));
        }
    }
    EXPECT_THAT(told, ElementsAre("START", "command(" + l1 + ") OK result=0", testing::_,
                                  "Set Owner OK file=" + a + " owner=daemon", "Set Group OK file=" + a + " owner=12",
                                  "Set FileMode OK file=" + a + " owner=0640", "END"));
}

TEST_F(FileProperties, OldLinkIsReplaced)
{
    run_shell("ln -s /elsewhere " + folder + "l1");
    strcpy(definition->setfile[0].linkpath[0], (folder + "l1").c_str());
    EXPECT_EQ(apply(), 0);
    EXPECT_EQ(target_of(folder + "l1"), a);
}

TEST_F(FileProperties, LinkCommandThatFailsEndsTheWalk)
{
    strcpy(definition->setfile[0].linkpath[0], "/none/l1");
    strcpy(definition->setfile[0].filemode, "600");
    add(1, "b");
    EXPECT_EQ(apply(), -1);
    EXPECT_TRUE(p().traced(1, "[change_fileprop] command(rm /none/l1; ln -s " + a +
                                  " /none/l1 > /dev/null 2>&1) ERROR result=1"));
    EXPECT_NE(mode_of(a), 0600u);
}

TEST_F(FileProperties, NoCommandIsMadeOfBlanksOrShellCharacters)
{
    for (const char *bad : {"/tmp/a b", "/tmp/$HOME", "/tmp/a;b", "/tmp/`x`",  "/tmp/a'b", "/tmp/a\"b", "/tmp/a*",
                            "/tmp/a&b", "/tmp/a|b",   "/tmp/a>b", "/tmp/a\\b", "/tmp/(a)", "/tmp/a\nb", "#a",
                            "~/a",      "/tmp/{a}",   "/tmp/a!b", "/tmp/[a]",  "/tmp/a?b", "/tmp/a\tb"}) {
        p().traces.clear();
        p().system_commands.clear();
        strcpy(definition->setfile[0].linkpath[0], bad);
        EXPECT_EQ(apply(), -1) << bad;
        EXPECT_THAT(p().system_commands, IsEmpty()) << bad;
        EXPECT_THAT(p().texts(1), ElementsAre("[change_fileprop] command(rm " + std::string(bad) + "; ln -s " + a +
                                              " " + bad + " > /dev/null 2>&1) ERROR result=-1"));
    }
    for (const char *good : {"/tmp/a#b", "/tmp/~a", "/tmp/a,b%c^d", "/tmp/\xc3\xa4"}) {
        strcpy(definition->setfile[0].linkpath[0], good);
        EXPECT_EQ(apply(), 0) << good;
        EXPECT_EQ(target_of(good), a);
        EXPECT_EQ(unlink(good), 0);
    }
    // A file that has such a name, and no links, is not touched by this.
    add(0, "with blank");
    definition->setfile[0].linkpath[0][0] = '\0';
    strcpy(definition->setfile[0].filemode, "600");
    EXPECT_EQ(apply(), 0);
    EXPECT_EQ(mode_of(folder + "with blank"), 0600u);
    strcpy(definition->setfile[0].linkpath[0], (folder + "l1").c_str());
    EXPECT_EQ(apply(), -1) << "but not with links";
}

TEST_F(FileProperties, MissingFileEndsTheWalkUnlessTheGroupAddsAndRemoves)
{
    entry(0, "gone");
    strcpy(add(1, "b").filemode, "600");
    for (const char *operation : {"", "add", "addremovex", "ADDREMOVE"}) {
        strcpy(definition->operation, operation);
        p().traces.clear();
        EXPECT_EQ(apply(), -1);
        EXPECT_TRUE(p().traced(5, "[change_fileprop] stat ERROR file=" + folder + "gone"));
        EXPECT_TRUE(p().traced(1, "[change_fileprop] (" + folder + "gone) is not found ---> FAILED"));
        EXPECT_NE(mode_of(folder + "b"), 0600u);
    }
    strcpy(definition->operation, "addremove");
    EXPECT_EQ(apply(), 0);
    EXPECT_TRUE(p().traced(5, "[change_fileprop] (" + folder + "gone) is a delete file ---> CONTINUE"));
    EXPECT_EQ(mode_of(folder + "b"), 0600u);
}

TEST_F(FileProperties, EmptyPathEndsTheWalk)
{
    strcpy(add(1, "b").filemode, "600");
    strcpy(add(3, "d").filemode, "600");
    EXPECT_EQ(apply(), 0);
    EXPECT_EQ(mode_of(folder + "b"), 0600u);
    EXPECT_NE(mode_of(folder + "d"), 0600u);
    EXPECT_THAT(p().system_commands, IsEmpty()) << "no links, no commands";
}

TEST_F(FileProperties, AllSixtyFourEntriesAreWalked)
{
    for (int i = 0; i < 64; ++i) {
        strcpy(add(i, "f" + std::to_string(i)).filemode, "601");
    }
    EXPECT_EQ(apply(3), 0);
    EXPECT_EQ(mode_of(folder + "f63"), 0601u);
}

TEST_F(FileProperties, FirstFailureEndsTheWalk)
{
    struct Case {
        char *field;
        const char *value;
        const char *title;
    };
    KESTA_BACKUP_FILE_PATH &file = definition->setfile[0];
    for (const Case &c : {Case{file.owner, "nobody-of-that-name", "Owner"},
                          Case{file.group, "nobody-of-that-name", "Group"}, Case{file.filemode, "778", "FileMode"}}) {
        strcpy(c.field, c.value);
        EXPECT_EQ(apply(), -1);
        EXPECT_TRUE(
            p().traced(1, std::string("[change_fileprop] Set ") + c.title + " ERROR file=" + a + " owner=" + c.value));
        c.field[0] = '\0';
    }
}

TEST_F(FileProperties, ArgumentsAreChecked)
{
    for (const int controller : {4, -1}) {
        EXPECT_EQ(apply(controller), -931);
        EXPECT_EQ(p().traces.back(),
                  (Trace{1, "[change_fileprop] CntNo ERROR", "../common/kestal_change_fileprop.cpp"}));
    }
    EXPECT_EQ(kestal_change_fileprop(nullptr, 0), -931);
    EXPECT_EQ(p().traces.back().text, "[change_fileprop] BackupFile ERROR");
    char text[] = "x";
    EXPECT_EQ(kestal_change_owner(nullptr, nullptr), -931);
    EXPECT_EQ(p().traces.back().text, "[change_owner] FilePath ERROR");
    EXPECT_EQ(kestal_change_owner(text, nullptr), -931);
    EXPECT_EQ(p().traces.back().text, "[change_owner] OwnerName ERROR");
    EXPECT_EQ(kestal_change_group(nullptr, nullptr), -931);
    EXPECT_EQ(p().traces.back().text, "[change_group] FilePath ERROR");
    EXPECT_EQ(kestal_change_group(text, nullptr), -931);
    EXPECT_EQ(p().traces.back().text, "[change_group] GroupName ERROR");
    EXPECT_EQ(kestal_change_filemode(nullptr, nullptr), -931);
    EXPECT_EQ(p().traces.back().text, "[change_filemode] FilePath ERROR");
    EXPECT_EQ(kestal_change_filemode(text, nullptr), -931);
    EXPECT_EQ(p().traces.back().text, "[change_filemode] FileMode ERROR");
}

TEST_F(FileProperties, OwnersByNumberAndName)
{
    const std::pair<const char *, uid_t> cases[] = {{"12", 12}, {"12abc", 12}, {"daemon", 1},
                                                    {"0", 0},   {"bin", 2},    {"root", 0}};
    for (const auto &[owner, id] : cases) {
        EXPECT_EQ(kestal_change_owner(a.data(), owner), 0) << owner;
        EXPECT_EQ(status_of(a).st_uid, id) << owner;
        EXPECT_EQ(status_of(a).st_gid, 0u) << "unchanged";
    }
    p().traces.clear();
    EXPECT_EQ(kestal_change_owner(a.data(), "00"), -931) << "looked up as a name";
    EXPECT_THAT(p().texts(1), ElementsAre(testing::StartsWith("[change_owner] getpwnam(00) ERROR")));
    p().traces.clear();
    EXPECT_EQ(kestal_change_owner(a.data(), "daemon"), 0);
    EXPECT_THAT(p().texts(5),
                ElementsAre("[change_owner] START", "[change_owner] file=" + a + " ownername=daemon",
                            "[change_owner] ...chown file=" + a + " ownername=daemon ownerid=1", "[change_owner] END"));
    char gone[] = "/none/x";
    EXPECT_EQ(kestal_change_owner(gone, "5"), -213);
    EXPECT_TRUE(p().traced(1,
                           "[change_owner] chown ERROR file=/none/x ownername=5 ownerid=5 rtn=-1 "
                           "errno=2"));
}

TEST_F(FileProperties, GroupsByNumberAndName)
{
    EXPECT_EQ(kestal_change_group(a.data(), "daemon"), 0);
    EXPECT_EQ(status_of(a).st_gid, 1u);
    EXPECT_EQ(status_of(a).st_uid, 0u) << "unchanged";
    EXPECT_THAT(p().texts(5),
                ElementsAre("[change_group] START", "[change_group] file=" + a + " groupname=daemon",
                            "[change_group] ...getgrnam file=" + a + " group=daemon",
                            "[change_group] ...chown file=" + a + " group=daemon groupid=1", "[change_group] END"));
    EXPECT_EQ(kestal_change_group(a.data(), "0"), 0);
    EXPECT_EQ(status_of(a).st_gid, 0u);
    EXPECT_EQ(kestal_change_group(a.data(), "none-such"), -931);
    EXPECT_THAT(p().texts(1), ElementsAre(testing::StartsWith("[change_group] getgrnam ERROR group=none-such errno=")));
    char gone[] = "/none/x";
    EXPECT_EQ(kestal_change_group(gone, "5"), -213);
    EXPECT_TRUE(p().traced(1, "[change_group] chown ERROR file=/none/x group=5 groupid=5 rtn=-1 errno=2"));
}

TEST_F(FileProperties, OwnersFollowLinks)
{
    run_shell("ln -s " + a + " " + folder + "link");
    std::string link = folder + "link";
    EXPECT_EQ(kestal_change_owner(link.data(), "7"), 0);
    EXPECT_EQ(status_of(a).st_uid, 7u);
}

TEST_F(FileProperties, ModesAreReadTwice)
{
    const std::pair<const char *, unsigned> cases[] = {{"644", 0644}, {"0755", 0755}, {"777", 0777}, {"1", 01},
                                                       {"688", 06},   {"0644", 0644}, {"700", 0700}, {"97", 0}};
    for (const auto &[text, mode] : cases) {
        EXPECT_EQ(kestal_change_filemode(a.data(), text), 0) << text;
        EXPECT_EQ(mode_of(a), mode) << text;
    }
    EXPECT_TRUE(p().traced(5, "[change_filemode] FileMode=688"));
    EXPECT_TRUE(p().traced(5, "[change_filemode] FilePath=" + a + ", FileMode=688"));
    for (const char *text : {"0", "778", "1000", "000"}) {
        EXPECT_EQ(kestal_change_filemode(a.data(), text), -931) << text;
        EXPECT_TRUE(p().traced(1, "[change_filemode] FileMode ERROR modeidint=" + std::to_string(atoi(text))));
    }
    for (const char *text : {"", "rw", "-1", "64 4", "6x4"}) {
        EXPECT_EQ(kestal_change_filemode(a.data(), text), -1) << text;
        EXPECT_TRUE(p().traced(1, std::string("[change_filemode] isdigit check ERROR filemode=") + text));
    }
    char gone[] = "/none/x";
    EXPECT_EQ(kestal_change_filemode(gone, "644"), -213);
    EXPECT_TRUE(p().traced(1, "[change_filemode] FileMode Change ERROR rtn =-1,errno=2"));
}
