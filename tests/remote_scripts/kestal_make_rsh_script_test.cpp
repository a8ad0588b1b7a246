#include "library_test.h"

using namespace test;
using testing::ElementsAre;

namespace {

const std::string samefile = "/var/run/kesta_sys/tmp/kesta_rsh_samefile.sh";
const std::string tarz = "/var/run/kesta_sys/tmp/kesta_rsh_tarz.sh";

// One step, as it has to stand in a script.
std::string step(const std::string &command, int exit_code)
{
    return "pfexec su vndrmnt -c \"" + command +
           "\" & \n"
           "sleep 0.1\n"
           "ii=0\n"
           "while [ 1 ]\ndo\n"
           "ii=`expr $ii + 1`\n"
           "PID=`pgrep -f \"" +
           command.substr(0, 63) +
           "\"`\n"
           "if [ ! \"$PID\" ]; then\n\tbreak\nfi\n"
           "if [ $ii -gt 149 ]; then\n"
           "\tkill -9 $PID\n\texit " +
           std::to_string(exit_code) + "\nfi\nsleep 0.1\ndone\n";
}

std::string rsh(const std::string &command) { return "/usr/bin/rsh -l vndrmnt CNT1 pfexec " + command; }

}  // namespace

class RemoteScripts : public LibraryTest {
protected:
    int make(std::vector<std::string> files, int n)
    {
        std::vector<char *> names;
        for (std::string &file : files) {
            names.push_back(file.data());
        }
        return kestal_make_rsh_samefilename_script(1, names.data(), n);
    }
};

TEST_F(RemoteScripts, OneFile)
{
    EXPECT_EQ(make({"/etc/a"}, 0), 0);
    EXPECT_EQ(read_file(samefile),
              "#!/bin/sh\n" + step(rsh("touch /etc/a "), 1) + step(rsh("chown vndrmnt:vndrmnt /etc/a "), 2) +
                  step("/usr/bin/rcp -p /etc/a vndrmnt@CNT1:/etc/a", 3) + step(rsh("chown root:root /etc/a "), 6) +
                  step(rsh("chmod 644 /etc/a "), 7) + "exit 0\n");
    EXPECT_EQ(p().traces.front(),
              (Trace{5, "[make_rsh_samefilename_script] START ret=0", "../common/kestal_make_rsh_script.cpp"}));
    EXPECT_THAT(p().texts(4), ElementsAre("[make_rsh_samefilename_script] filename(0/0)=/etc/a"));
    EXPECT_EQ(p().traces.back().text, "[make_rsh_samefilename_script] END ret=0");
}

TEST_F(RemoteScripts, CodesOfFourFilesOverlap)
{
    EXPECT_EQ(make({"/a", "/b", "/c", "/d"}, 3), 0);
    const std::string list = "/a /b /c /d ";
    EXPECT_EQ(read_file(samefile),
              "#!/bin/sh\n" + step(rsh("touch " + list), 1) + step(rsh("chown vndrmnt:vndrmnt " + list), 2) +
                  step("/usr/bin/rcp -p /a vndrmnt@CNT1:/a", 3) + step("/usr/bin/rcp -p /b vndrmnt@CNT1:/b", 4) +
                  step("/usr/bin/rcp -p /c vndrmnt@CNT1:/c", 5) + step("/usr/bin/rcp -p /d vndrmnt@CNT1:/d", 6) +
                  step(rsh("chown root:root " + list), 6) + step(rsh("chmod 644 " + list), 7) + "exit 0\n");
}

TEST_F(RemoteScripts, NegativeIndexSendsNothing)
{
    EXPECT_EQ(kestal_make_rsh_samefilename_script(1, nullptr, -1), 0);
    EXPECT_EQ(read_file(samefile), "#!/bin/sh\n" + step(rsh("touch "), 1) + step(rsh("chown vndrmnt:vndrmnt "), 2) +
                                       step(rsh("chown root:root "), 6) + step(rsh("chmod 644 "), 7) + "exit 0\n");
}

TEST_F(RemoteScripts, ListThatDoesNotFitIsRefusedNotCut)
{
    const std::string head = rsh("chown vndrmnt:vndrmnt ");
    const std::string longest(511 - head.size() - 1, 'f');
    EXPECT_EQ(make({longest}, 0), -1) << "the copy has the name twice";
    EXPECT_TRUE(p().traced(1, "[make_rsh_samefilename_script] Buffer ERROR"));
    const std::string half(200, 'h');
    EXPECT_EQ(make({half, half}, 1), 0);
    EXPECT_EQ(make({half, half, half}, 2), -1);
    EXPECT_EQ(p().traces.back().text, "[make_rsh_samefilename_script] END ret=-1");
}

TEST_F(RemoteScripts, NullNamesAreRefused)
{
    EXPECT_EQ(kestal_make_rsh_samefilename_script(1, nullptr, 0), -931);
    char *names[] = {nullptr};
    EXPECT_EQ(kestal_make_rsh_samefilename_script(1, names, 0), -931);
    EXPECT_FALSE(exists(samefile));
}

TEST_F(RemoteScripts, ArchiveScript)
{
    EXPECT_EQ(kestal_make_rsh_tarz_script(1), 0);
    const std::string accept = "/opt/kesta_sys/bakup/accept.tar.Z";
    const std::string backup = "/opt/kesta_sys/bakup/backup.tar.Z";
    EXPECT_EQ(read_file(tarz), "#!/bin/sh\n" + step(rsh("chown vndrmnt:vndrmnt " + accept + " " + backup), 1) +
                                   step(rsh("cp -p " + accept + " " + backup), 2) +
                                   step(rsh("chown root:root " + accept + " " + accept), 3) + "exit 0\n");
    EXPECT_EQ(p().traces.front().text, "[make_rsh_tarz_script] START ret=0");
    EXPECT_EQ(p().traces.back().text, "[make_rsh_tarz_script] END ret=0");
    EXPECT_EQ(mode_of(tarz), 0644u) << "the process's default permissions";
}

TEST_F(RemoteScripts, ScriptsReplaceOldOnes)
{
    write_file(tarz, std::string(100000, 'x'));
    EXPECT_EQ(kestal_make_rsh_tarz_script(2), 0);
    EXPECT_LT(read_file(tarz).size(), 3000u);
}

TEST_F(RemoteScripts, FailuresAreTold)
{
    p().fail_kind("open", 0, 2);
    p().fault_errno = 13;
    EXPECT_EQ(make({"/a"}, 0), -1);
    EXPECT_TRUE(p().traced(1, "[make_rsh_samefilename_script] File(" + samefile + ") Open Failed. errno=13"));
    EXPECT_EQ(kestal_make_rsh_tarz_script(1), -1);
    EXPECT_TRUE(p().traced(1, "[make_rsh_tarz_script] File(" + tarz + ") Open Failed. errno=13"));

    p().fail_kind("write", 0, 2);
    p().fault_errno = 28;
    p().short_by = 10;
    EXPECT_EQ(make({"/a"}, 0), -1);
    EXPECT_EQ(p().count("[make_rsh_samefilename_script] File Write Error filename=" + samefile), 1);
    EXPECT_FALSE(read_file(samefile).empty()) << "a partial script is left";
    EXPECT_EQ(kestal_make_rsh_tarz_script(1), -1);
    EXPECT_EQ(p().count("[make_rsh_tarz_script] File Write Error filename=" + tarz), 1);

    p().fail_kind("alloc", 0, 1);
    EXPECT_EQ(kestal_make_rsh_tarz_script(1), -1);
    EXPECT_TRUE(p().traced(1, "[make_rsh_tarz_script] Buffer ERROR"));
    EXPECT_EQ(read_file(tarz), "") << "left as created";
    p().fail_kind("alloc", 0, 1);
    EXPECT_EQ(make({"/a"}, 0), -1);
}

TEST_F(RemoteScripts, NameThatAShellWouldActOnIsRefused)
{
    for (const char *name : {"/a b", "/a;id", "/$(id)", "/a\"", "/a'", "/a*"}) {
        EXPECT_EQ(make({"/a", name}, 1), -931) << name;
        EXPECT_EQ(p().traces.back().text, "[make_rsh_samefilename_script] Argument ERROR");
    }
    EXPECT_THAT(p().calls_of("open"), testing::IsEmpty());
}

TEST_F(RemoteScripts, EveryFaultIsReported)
{
    sweep_faults([] { reset(); },
                 [this] {
                     return make({"/a", "/b"}, 1);
                 },
                 [](int result, bool met) { EXPECT_EQ(result, met ? -1 : 0); });
    sweep_faults([] { reset(); }, [] { return kestal_make_rsh_tarz_script(3); },
                 [](int result, bool met) { EXPECT_EQ(result, met ? -1 : 0); });
}
