// The trace library and cpinfo, through programs of their own: each run has its own settings.
#include <errno.h>

#include <regex>
#include <sstream>

#include "mc_logapi.h"
#include "platform_test.h"
#include "text_lines.h"

using namespace test;

class Trace : public PlatformTest {
protected:
    std::string log = folder() + "/trace.log";

    // Runs a command with settings, and gives its exit code. Its outputs go to files.
    int run(const std::string &settings, const std::string &command)
    {
        const std::string line = "unset KESTA_PLATFORM_TRACE_FILE; export KESTA_PLATFORM_TRACE_FILE=" + log + " " +
                                 settings + "; " + command + " > " + folder() + "/out 2> " + folder() + "/err";
        const int status = system(line.c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    int write(const std::string &settings, const std::string &arguments)
    {
        return run(settings, std::string(KESTA_TRACE_WRITER) + " " + arguments);
    }
    std::string out() { return read_file(folder() + "/out"); }
    std::string err() { return read_file(folder() + "/err"); }
};

TEST_F(Trace, OneLineWithTimeProcessThreadLevelPlaceAndText)
{
    EXPECT_EQ(write("", "1 1 3 hello"), 0);
    EXPECT_TRUE(
        std::regex_match(read_file(log),
                         std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z \d+ \d+ 3 some_file\.cpp:17 hello 0\n)")))
        << read_file(log);
}

TEST_F(Trace, LevelsAboveTheSettingAreDropped)
{
    EXPECT_EQ(write("", "1 1 4 hello"), 0);
    EXPECT_FALSE(fs::exists(log));
    EXPECT_EQ(write("KESTA_PLATFORM_TRACE_LEVEL=4", "1 1 4 hello"), 0);
    EXPECT_EQ(lines_of(read_file(log)).size(), 1u);
    EXPECT_EQ(write("KESTA_PLATFORM_TRACE_LEVEL=0", "1 1 1 hello"), 0);
    EXPECT_EQ(lines_of(read_file(log)).size(), 1u);
}

TEST_F(Trace, StandardErrorAndNone)
{
    EXPECT_EQ(write("KESTA_PLATFORM_TRACE_TARGET=stderr", "1 2 1 shown"), 0);
    EXPECT_EQ(lines_of(err()).size(), 2u);
    EXPECT_EQ(write("KESTA_PLATFORM_TRACE_TARGET=none", "1 2 1 shown"), 0);
    EXPECT_EQ(err(), "");
    EXPECT_FALSE(fs::exists(log));
}

TEST_F(Trace, SystemLogDoesNotFailItsCaller)
{
    EXPECT_EQ(write("KESTA_PLATFORM_TRACE_TARGET=syslog", "1 2 1 gone"), 0);
}

TEST_F(Trace, ReaderOfStandardErrorThatWentAwayDoesNotEndTheCaller)
{
    EXPECT_EQ(run("KESTA_PLATFORM_TRACE_TARGET=stderr", "bash -c 'set -o pipefail; { " KESTA_TRACE_WRITER
                                                        " 1 5000 1 text; echo $? >&3; } 2>&1 >/dev/null | true' 3>" +
                                                            folder() + "/code"),
              0);
    EXPECT_EQ(read_file(folder() + "/code"), "0\n");
}

TEST_F(Trace, FileThatCanNotBeWrittenDoesNotFailItsCaller)
{
    EXPECT_EQ(write("KESTA_PLATFORM_TRACE_FILE=/proc/none/trace", "1 3 1 lost"), 0);
    EXPECT_EQ(write("KESTA_PLATFORM_TRACE_FILE=/dev/full", "1 3 1 lost"), 0);
    EXPECT_EQ(err(), "");
}

TEST_F(Trace, LineBreaksAndLongTextsStayOneLine)
{
    EXPECT_EQ(write("", "1 1 1 \"$(printf 'a\\nb')\""), 0);
    ASSERT_EQ(lines_of(read_file(log)).size(), 1u);
    EXPECT_NE(read_file(log).find("a b 0\n"), std::string::npos);
    fs::remove(log);
    EXPECT_EQ(write("", "1 1 1 $(printf '%05000d' 1)"), 0);
    ASSERT_EQ(lines_of(read_file(log)).size(), 1u);
    EXPECT_LE(read_file(log).size(), 2048u);
}

TEST_F(Trace, LinesStayWholeFromManyProcessesAndThreads)
{
    const std::string writer = KESTA_TRACE_WRITER;
    const std::string text(150, 'x');
    EXPECT_EQ(run("", "bash -c 'for i in 1 2 3 4; do " + writer + " 3 200 1 " + text + " & done; wait'"), 0);
    const auto lines = lines_of(read_file(log));
    EXPECT_EQ(lines.size(), 4u * 3u * 200u);
    const std::regex whole(R"(\S+Z \d+ \d+ 1 some_file\.cpp:17 x{150} \d+)");
    for (const std::string &line : lines) {
        ASSERT_TRUE(std::regex_match(line, whole)) << line;
    }
}

TEST_F(Trace, FileIsRotatedBySizeAndNoLineIsLost)
{
    const std::string writer = KESTA_TRACE_WRITER;
    EXPECT_EQ(run("KESTA_PLATFORM_TRACE_ROTATE_BYTES=20000 KESTA_PLATFORM_TRACE_KEEP=100",
                  "bash -c 'for i in 1 2 3; do " + writer + " 2 200 1 text & done; wait'"),
              0);
    std::size_t lines = 0;
    std::size_t files = 0;
    for (const std::string &name : names_in(folder())) {
        if (name.rfind("trace.log", 0) == 0) {
            const std::string bytes = read_file(folder() + "/" + name);
            EXPECT_LE(bytes.size(), 30000u) << name;
            lines += lines_of(bytes).size();
            ++files;
        }
    }
    EXPECT_EQ(lines, 3u * 2u * 200u);
    EXPECT_GT(files, 2u);
}

TEST_F(Trace, OnlySoManyOldFilesAreKept)
{
    EXPECT_EQ(write("KESTA_PLATFORM_TRACE_ROTATE_BYTES=4096 KESTA_PLATFORM_TRACE_KEEP=2", "1 1000 1 text"), 0);
    EXPECT_TRUE(fs::exists(log));
    EXPECT_TRUE(fs::exists(log + ".1"));
    EXPECT_TRUE(fs::exists(log + ".2"));
    EXPECT_FALSE(fs::exists(log + ".3"));
}

TEST_F(Trace, PathIsCutToItsFileName)
{
    EXPECT_STREQ(MC_FilePathDel("../common/kestal_system.cpp"), "kestal_system.cpp");
    EXPECT_STREQ(MC_FilePathDel("plain.cpp"), "plain.cpp");
    EXPECT_STREQ(MC_FilePathDel("folder/"), "");
    EXPECT_STREQ(MC_FilePathDel(nullptr), "");
}

// ---------------------------------------------------------------- cpinfo

TEST_F(Trace, CpinfoPrintsWhatTheSettingsSay)
{
    const std::string cpinfo = KESTA_CPINFO;
    const std::string own =
        "KESTA_PLATFORM_CONTROLLER_NUMBER=3 KESTA_PLATFORM_CONTROLLER_COUNT=2 "
        "KESTA_PLATFORM_BOOT_MODE=initconf";
    EXPECT_EQ(run(own, cpinfo + " -i"), 0);
    EXPECT_EQ(out(), "3\n");
    EXPECT_EQ(run(own, cpinfo + " -N"), 0);
    EXPECT_EQ(out(), "2\n");
    EXPECT_EQ(run(own, cpinfo + " -b"), 0);
    EXPECT_EQ(out(), "initconf\n");
}

TEST_F(Trace, CpinfoRefusesWrongUsageAndWrongSettings)
{
    const std::string cpinfo = KESTA_CPINFO;
    for (const char *arguments : {"", "-x", "-i -N", "i"}) {
        EXPECT_EQ(run("", cpinfo + " " + arguments), 2) << arguments;
        EXPECT_EQ(out(), "");
        EXPECT_NE(err().find("usage: cpinfo"), std::string::npos);
    }
    EXPECT_EQ(run("", cpinfo + " --help"), 0);
    for (const char *wrong : {"KESTA_PLATFORM_CONTROLLER_NUMBER=4", "KESTA_PLATFORM_CONTROLLER_NUMBER=x",
                              "KESTA_PLATFORM_CONTROLLER_COUNT=0"}) {
        EXPECT_EQ(run(wrong, cpinfo + " -i"), 1) << wrong;
        EXPECT_EQ(out(), "");
        EXPECT_NE(err().find("not a usable number"), std::string::npos) << err();
    }
    const std::string conf = folder() + "/own.conf";
    for (const char *bad : {"no_such_key = 1\n", "just words\n"}) {
        write_file(conf, bad);
        EXPECT_EQ(run("KESTA_PLATFORM_CONF=" + conf, cpinfo + " -i"), 1) << bad;
    }
    write_file(conf, "# comment\n\n  controller_number = 1 \nboot_mode=suspend\n");
    EXPECT_EQ(run("KESTA_PLATFORM_CONF=" + conf + "; unset KESTA_PLATFORM_CONTROLLER_NUMBER", cpinfo + " -i"), 0);
    EXPECT_EQ(out(), "1\n");
    EXPECT_EQ(run("KESTA_PLATFORM_CONF=" + conf + " KESTA_PLATFORM_CONTROLLER_NUMBER=0", cpinfo + " -i"), 0);
    EXPECT_EQ(out(), "0\n") << "the environment comes before the file";
    faults("cpinfo 1 on fail\n");
    EXPECT_EQ(run("", cpinfo + " -i"), 1);
}

TEST_F(Trace, FileThatSomebodyPlantedIsNeitherWrittenThroughNorWaitedFor)
{
    const std::string mine = folder() + "/mine";
    for (const std::string &plant : {"echo mine > " + mine + "; ln -s mine " + log, "mkfifo " + log, "mkdir " + log}) {
        ASSERT_EQ(system(plant.c_str()), 0);
        EXPECT_EQ(write("", "1 1 1 hello"), 0) << plant;
        ASSERT_EQ(system(("rm -r " + log).c_str()), 0);
    }
    EXPECT_EQ(read_file(mine), "mine\n");
    EXPECT_EQ(write("", "1 1 1 hello"), 0);
    EXPECT_EQ(lines_of(read_file(log)).size(), 1u);
}
