#include "controller_state.h"
#include "library_test.h"

using namespace test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char *own_number = "/usr/sbin/cpinfo -i";
constexpr const char *count = "/usr/sbin/cpinfo -N";
constexpr const char *boot_mode = "/usr/sbin/cpinfo -b";
constexpr int exit_1 = 1 << 8;

const std::string tag = "[kestal_execute_command_by_popen] ";

}  // namespace

class CommandByPopen : public LibraryTest {
protected:
    int ask(int option, const char *command, const std::string &output, int status = 0)
    {
        p().traces.clear();
        p().commands[command] = {output, status};
        return kestal_execute_command_by_popen(option);
    }
};

TEST_F(CommandByPopen, FirstLineIsTheAnswer)
{
    EXPECT_EQ(ask(0, own_number, "2\n"), 2);
    EXPECT_THAT(p().texts(5), ElementsAre(tag + "START", "[isdigit] START", "[isdigit] END",
                                          tag + "Get My CNT Number End. cnt_num=2"));
    EXPECT_EQ(ask(0, own_number, "2"), 2);
    EXPECT_EQ(ask(4, own_number, "3\nnoise\n"), 3);
    EXPECT_EQ(ask(1, count, "4\n"), 4);
    EXPECT_THAT(p().calls_of("popen"), Contains("popen /usr/sbin/cpinfo -i"));
    EXPECT_EQ(p().calls_of("popen").size(), p().calls_of("pclose").size());
}

TEST_F(CommandByPopen, NumberOutsideItsRangeIsRefused)
{
    EXPECT_EQ(ask(0, own_number, "4\n"), -241);
    EXPECT_THAT(p().texts(1), ElementsAre(tag + "Get My CNT Number ERROR cnt_num=4 num_flag=0"));
    EXPECT_EQ(ask(4, own_number, "4\n"), -241);
    EXPECT_THAT(p().texts(1), ElementsAre(tag + "Get My CNT Number ERROR cnt_num=4 num_flag=4"));
    EXPECT_EQ(ask(1, count, "0\n"), -241);
    EXPECT_THAT(p().texts(1), ElementsAre(tag + "Get My CNT Number ERROR cnt_num=0 num_flag=1"));
    EXPECT_EQ(ask(1, count, "5\n"), -241);
    EXPECT_EQ(ask(0, own_number, "4294967297\n"), -241) << "must not wrap to 1";
}

TEST_F(CommandByPopen, OnlyDigitsAreANumber)
{
    for (const std::string text : {"1a", "-1", " 1", "+1", "1 "}) {
        EXPECT_EQ(ask(0, own_number, text + "\n"), -241) << text;
        EXPECT_TRUE(p().traced(1, tag + "isdigit check ERROR buf=" + text));
    }
    EXPECT_EQ(ask(1, count, "\n"), -241);
    EXPECT_TRUE(p().traced(1, tag + "isdigit check ERROR buf="));
    EXPECT_TRUE(p().traced(1, "[isdigit] string length  0."));
}

TEST_F(CommandByPopen, NoOutputIsAFailure)
{
    EXPECT_EQ(ask(0, own_number, ""), -241);
    EXPECT_THAT(p().texts(1), ElementsAre(tag + "fgets() Error"));
    EXPECT_EQ(p().open_pipes, 0);
}

TEST_F(CommandByPopen, CommandThatCanNotBeStarted)
{
    p().fail_kind("popen");
    EXPECT_EQ(ask(0, own_number, "1\n"), -241);
    EXPECT_THAT(p().texts(1), ElementsAre(tag + "cpinfo Command Exe Error"));
    EXPECT_THAT(p().calls_of("pclose"), IsEmpty());
}

TEST_F(CommandByPopen, FailingCommandThatPrintedAValueYieldsTheValue)
{
    EXPECT_EQ(ask(0, own_number, "1\n", exit_1), 1);
    EXPECT_THAT(p().texts(1), ElementsAre(tag + "pclose error. status=0x100"));
    EXPECT_EQ(ask(0, own_number, "1\n", 9), 1) << "killed";
    EXPECT_THAT(p().texts(1), ElementsAre(tag + "pclose error. status=0x9"));
    p().fail_kind("pclose");
    EXPECT_EQ(ask(0, own_number, "1\n"), 1);
    EXPECT_THAT(p().texts(1), ElementsAre(tag + "pclose error. status=0xffffffff"));
}

TEST_F(CommandByPopen, BootModesAreExactWords)
{
    EXPECT_EQ(ask(2, boot_mode, "normal\n"), 0);
    EXPECT_EQ(ask(2, boot_mode, "suspend\n"), 1);
    EXPECT_EQ(ask(2, boot_mode, "initconf"), 2);
    for (const std::string word : {"Normal", "normal ", "norma", "normally", ""}) {
        EXPECT_EQ(ask(2, boot_mode, word + "\n"), -241) << word;
        EXPECT_THAT(p().texts(1), ElementsAre(tag + "Get My CNT Number ERROR cnt_num=-1 num_flag=2"));
    }
}

TEST_F(CommandByPopen, EepromTextsGoToTheirCachesCutAt16)
{
    EXPECT_EQ(ask(3, "/usr/sbin/eeprom cp_wwn | cut -d '=' -f2", "50000E10D0001234\n"), 0);
    EXPECT_STREQ(controller_state.eeprom_wwn, "50000E10D0001234");
    EXPECT_EQ(ask(5, "/usr/sbin/eeprom cp_serial_number | cut -d '=' -f2", "0123456789abcdefXYZ\n"), 0);
    EXPECT_STREQ(controller_state.eeprom_serialno, "0123456789abcdef");
    EXPECT_EQ(p().count("Get My CNT Number"), 0) << "no range check";
}

TEST_F(CommandByPopen, LongLineIsReadTo63Characters) { EXPECT_EQ(ask(0, own_number, std::string(63, '0') + "9\n"), 0); }

TEST_F(CommandByPopen, UnknownOptionRunsNothing)
{
    EXPECT_EQ(kestal_execute_command_by_popen(6), -931);
    EXPECT_EQ(kestal_execute_command_by_popen(-1), -931);
    EXPECT_THAT(p().calls, IsEmpty());
}

class CntNumFromCpinfo : public LibraryTest {
protected:
    CntNumFromCpinfo()
    {
        controller_state.own_number = -1;
        p().commands[own_number] = {"2\n", 0};
        p().commands[count] = {"4\n", 0};
        p().commands[boot_mode] = {"normal\n", 0};
    }
};

TEST_F(CntNumFromCpinfo, OwnNumberIsAskedAndWrittenOnce)
{
    EXPECT_EQ(kestal_get_cnt_num_from_cpinfo(0), 2);
    EXPECT_EQ(controller_state.own_number, 2);
    EXPECT_EQ(controller_state.own_number_written, 0);
    EXPECT_EQ(p().integer_files.at("/etc/mycntno"), 2);
    p().calls.clear();
    p().traces.clear();
    EXPECT_EQ(kestal_get_cnt_num_from_cpinfo(0), 2);
    EXPECT_THAT(p().calls, IsEmpty());
    EXPECT_THAT(p().texts(5),
                ElementsAre("[get_cnt_num_from_cpinfo] START", "[get_cnt_num_from_cpinfo] END cnt_num=2"));
}

TEST_F(CntNumFromCpinfo, OwnNumberWithoutFile)
{
    EXPECT_EQ(kestal_get_cnt_num_from_cpinfo(4), 2);
    EXPECT_EQ(controller_state.own_number, 2);
    EXPECT_EQ(controller_state.own_number_written, -1);
    EXPECT_TRUE(p().integer_files.empty());
    EXPECT_EQ(kestal_get_cnt_num_from_cpinfo(0), 2) << "known, but the file is still to be written";
    EXPECT_EQ(p().calls_of("popen").size(), 1u);
    EXPECT_EQ(p().integer_files.at("/etc/mycntno"), 2);
}

TEST_F(CntNumFromCpinfo, FailedWriteIsForgottenAndAskedAgain)
{
    p().fail_kind("vrb_set", 0, 1);
    p().fault_errno = 28;
    EXPECT_EQ(kestal_get_cnt_num_from_cpinfo(0), -1);
    EXPECT_EQ(controller_state.own_number, -1);
    EXPECT_EQ(controller_state.own_number_written, -1);
    EXPECT_TRUE(p().traced(1, "[get_cnt_num_from_cpinfo] Failed to set cntno to file. errno=28"));
    EXPECT_TRUE(p().traced(5, "[get_cnt_num_from_cpinfo] END cnt_num=-1"));
    EXPECT_EQ(kestal_get_cnt_num_from_cpinfo(0), 2);
    EXPECT_EQ(p().calls_of("popen").size(), 2u);
}

TEST_F(CntNumFromCpinfo, FailureStaysNegativeAndIsAskedAgain)
{
    p().commands[own_number] = {"4\n", 0};
    EXPECT_EQ(kestal_get_cnt_num_from_cpinfo(0), -241);
    EXPECT_EQ(controller_state.own_number, -241);
    EXPECT_TRUE(p().integer_files.empty());
    EXPECT_EQ(kestal_get_cnt_num_from_cpinfo(4), -241);
    p().commands[own_number] = {"1\n", 0};
    EXPECT_EQ(kestal_get_cnt_num_from_cpinfo(0), 1);
}

TEST_F(CntNumFromCpinfo, ControllerCountIsAskedAndWrittenEachTime)
{
    EXPECT_EQ(kestal_get_cnt_num_from_cpinfo(1), 4);
    EXPECT_EQ(kestal_get_cnt_num_from_cpinfo(1), 4);
    EXPECT_EQ(p().calls_of("popen").size(), 2u);
    EXPECT_THAT(p().calls_of("vrb_set"), ElementsAre("vrb_set /etc/cntnum 4", "vrb_set /etc/cntnum 4"));
    EXPECT_EQ(controller_state.count, 4);
    p().commands[count] = {"0\n", 0};
    EXPECT_EQ(kestal_get_cnt_num_from_cpinfo(1), -241);
    EXPECT_EQ(p().calls_of("vrb_set").size(), 2u);
    EXPECT_EQ(controller_state.count, -241);
}

TEST_F(CntNumFromCpinfo, ControllerCountThatCanNotBeWritten)
{
    p().fail_kind("vrb_set");
    EXPECT_EQ(kestal_get_cnt_num_from_cpinfo(1), -1);
    EXPECT_TRUE(p().traced(1, "[get_cnt_num_from_cpinfo] Failed to set cntnum to file. errno=5"));
    EXPECT_EQ(controller_state.count, -1);
}

TEST_F(CntNumFromCpinfo, BootModeIsNotCached)
{
    EXPECT_EQ(kestal_get_cnt_num_from_cpinfo(2), 0);
    p().commands[boot_mode] = {"initconf\n", 0};
    EXPECT_EQ(kestal_get_cnt_num_from_cpinfo(2), 2);
    EXPECT_EQ(controller_state.boot_mode, 2);
    EXPECT_THAT(p().texts(4),
                ElementsAre("[get_cnt_num_from_cpinfo] exemode=0", "[get_cnt_num_from_cpinfo] exemode=2"));
}

TEST_F(CntNumFromCpinfo, EnvironmentForcesSuspendAndInitConfOnly)
{
    for (const char *forced : {"1", "2", " 2", "1x"}) {
        p().traces.clear();
        setenv("KESTA_CPMODE_STATUS", forced, 1);
        const int mode = atoi(forced);
        EXPECT_EQ(kestal_get_cnt_num_from_cpinfo(2), mode);
        EXPECT_THAT(p().calls, IsEmpty());
        EXPECT_THAT(p().texts(4), ElementsAre("[get_cnt_num_from_cpinfo] exemode(env)=" + std::to_string(mode),
                                              "[get_cnt_num_from_cpinfo] exemode=" + std::to_string(mode)));
    }
    for (const char *other : {"0", "3", "", "x", "-1", "4294967297"}) {
        p().traces.clear();
        p().calls.clear();
        setenv("KESTA_CPMODE_STATUS", other, 1);
        EXPECT_EQ(kestal_get_cnt_num_from_cpinfo(2), 0) << other;
        EXPECT_EQ(p().calls_of("popen").size(), 1u);
        EXPECT_THAT(p().texts(4),
                    ElementsAre("[get_cnt_num_from_cpinfo] exemode(env)=0", "[get_cnt_num_from_cpinfo] exemode=0"));
    }
}

class CntNumFile : public LibraryTest {};

TEST_F(CntNumFile, ReadsTheFileOfTheOption)
{
    p().integer_files = {{"/etc/mycntno", 3}, {"/etc/cntnum", 4}};
    EXPECT_EQ(kestal_get_cnt_num_file(0), 3);
    EXPECT_EQ(kestal_get_cnt_num_file(1), 4);
    EXPECT_THAT(p().texts(5), ElementsAre("[kestal_get_cnt_num_file] Get My CNT Number End. cnt_num=3",
                                          "[kestal_get_cnt_num_file] Get My CNT Number End. cnt_num=4"));
    EXPECT_EQ(controller_state.own_number, 0) << "the caches are not touched";
    EXPECT_EQ(controller_state.count, -1);
}

TEST_F(CntNumFile, FailureNamesThePlatformFunctionEvenWhenItsNameFillsTheField)
{
    p().fault_errno = 2;
    EXPECT_EQ(kestal_get_cnt_num_file(1), -1);
    EXPECT_THAT(p().texts(1), ElementsAre("vrb_getint_from_file[1] failed. ret=(-2) path=(/etc/cntnum) "
                                          "func_name=(sixteen_letters!) errno=2"));
    EXPECT_THAT(p().texts(5), ElementsAre("[kestal_get_cnt_num_file] Get My CNT Number End. cnt_num=-1"));
}

TEST_F(CntNumFile, OtherOptionsFailAtOnce)
{
    EXPECT_EQ(kestal_get_cnt_num_file(2), -1);
    EXPECT_EQ(kestal_get_cnt_num_file(-1), -1);
    EXPECT_THAT(p().traces, IsEmpty());
    EXPECT_THAT(p().calls, IsEmpty());
}

class MakeCntFiles : public CntNumFromCpinfo {
protected:
    int own = -7;
    int number = -7;
};

TEST_F(MakeCntFiles, BothNumbersAndFiles)
{
    EXPECT_EQ(kestal_mk_cntfile_and_contnumfile(&own, &number), 0);
    EXPECT_EQ(own, 2);
    EXPECT_EQ(number, 4);
    EXPECT_EQ(p().integer_files, (std::map<std::string, int>{{"/etc/cntnum", 4}, {"/etc/mycntno", 2}}));
}

TEST_F(MakeCntFiles, FirstFailureLeavesTheSecondNumberAlone)
{
    p().commands[own_number] = {"9\n", 0};
    EXPECT_EQ(kestal_mk_cntfile_and_contnumfile(&own, &number), -161);
    EXPECT_EQ(own, -241);
    EXPECT_EQ(number, -7);
    EXPECT_TRUE(p().traced(1, "[mk_cntfile_and_contnumfile]  MyCntNo Get Error. rtn=-241"));
}

TEST_F(MakeCntFiles, SecondFailure)
{
    p().commands[count] = {"9\n", 0};
    EXPECT_EQ(kestal_mk_cntfile_and_contnumfile(&own, &number), -161);
    EXPECT_EQ(own, 2);
    EXPECT_EQ(number, -241);
    EXPECT_TRUE(p().traced(1, "[mk_cntfile_and_contnumfile] CntNo Get Error. rtn=-241"));
}

TEST_F(MakeCntFiles, NullPointersAreRefused)
{
    EXPECT_EQ(kestal_mk_cntfile_and_contnumfile(nullptr, &number), -931);
    EXPECT_EQ(kestal_mk_cntfile_and_contnumfile(&own, nullptr), -931);
    EXPECT_THAT(p().calls, IsEmpty());
}
