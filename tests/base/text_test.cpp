#include <climits>
#include <clocale>

#include "library_test.h"

using namespace test;

class IsDigit : public LibraryTest {};

TEST_F(IsDigit, DigitsPassWithStartAndEnd)
{
    EXPECT_EQ(kestal_isdigit("007"), 0);
    EXPECT_EQ(p().texts(5), (std::vector<std::string>{"[isdigit] START", "[isdigit] END"}));
}

TEST_F(IsDigit, AnythingElseFailsWithItsText)
{
    for (const char *text : {"7 ", "-7", "+7", "7\n", "x", "1a", " "}) {
        p().traces.clear();
        EXPECT_EQ(kestal_isdigit(text), -1) << text;
        EXPECT_TRUE(p().traced(1, std::string("[isdigit] isdigit ERROR buf=(") + text + ")"));
    }
    EXPECT_EQ(kestal_isdigit("\xd9\xa1"), -1) << "a digit of another script";
}

TEST_F(IsDigit, NullAndEmptyHaveTextsOfTheirOwn)
{
    EXPECT_EQ(kestal_isdigit(nullptr), -1);
    EXPECT_EQ(kestal_isdigit(""), -1);
    EXPECT_EQ(p().texts(1), (std::vector<std::string>{"[isdigit] buffer is NULL", "[isdigit] string length  0."}));
}

class Strcat : public LibraryTest {
protected:
    ~Strcat() override { kestal_free_debug(buffer, "../common/x.cpp", 1, 0); }
    char *buffer = nullptr;
    int capacity = 0;
};

TEST_F(Strcat, FirstAppendAllocatesOneStep)
{
    kestal_strcat(&buffer, &capacity, "%s-%d", "a", 7);
    EXPECT_STREQ(buffer, "a-7");
    EXPECT_EQ(capacity, 1024);
}

TEST_F(Strcat, GrowsByOneStepWhenTheTextAndItsTerminatorNoLongerFit)
{
    kestal_strcat(&buffer, &capacity, "%s", std::string(1000, 'x').c_str());
    EXPECT_EQ(capacity, 1024);
    kestal_strcat(&buffer, &capacity, "%s", std::string(23, 'y').c_str());
    EXPECT_EQ(capacity, 1024) << "1023 characters and the terminator fit";
    kestal_strcat(&buffer, &capacity, "z");
    EXPECT_EQ(capacity, 2048);
    EXPECT_EQ(std::string(buffer), std::string(1000, 'x') + std::string(23, 'y') + "z");
}

TEST_F(Strcat, OneAppendIsCutAt1023Characters)
{
    kestal_strcat(&buffer, &capacity, "%s", std::string(5000, 'x').c_str());
    EXPECT_EQ(std::string(buffer), std::string(1023, 'x'));
    EXPECT_EQ(capacity, 1024);
}

TEST_F(Strcat, TextThatCanNotBePrintedAddsNothing)
{
    kestal_strcat(&buffer, &capacity, "a");
    const wchar_t no_character[] = {static_cast<wchar_t>(0x7fffffff), 0};
    kestal_strcat(&buffer, &capacity, "%ls", no_character);
    EXPECT_EQ(std::string(buffer), "a");
}

TEST_F(Strcat, FailedFirstAllocationMarksTheBuffer)
{
    p().fail_kind("alloc");
    kestal_strcat(&buffer, &capacity, "x");
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(capacity, -1);
    EXPECT_TRUE(p().traced(1, "[strcat] MALLOC ERROR errno=12"));
    p().kind_faults.clear();
    kestal_strcat(&buffer, &capacity, "x");
    EXPECT_EQ(buffer, nullptr) << "a failed buffer ignores appends";
    EXPECT_EQ(capacity, -1);
}

TEST_F(Strcat, FailedGrowthFreesTheText)
{
    kestal_strcat(&buffer, &capacity, "%s", std::string(1000, 'x').c_str());
    p().fail_kind("alloc");
    kestal_strcat(&buffer, &capacity, "%s", std::string(100, 'x').c_str());
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(capacity, -1);
    EXPECT_TRUE(p().traced(1, "[strcat] realloc ERROR errno=12"));
}

TEST_F(Strcat, CapacityThatCanNotGrowFailsLikeAnAllocation)
{
    kestal_strcat(&buffer, &capacity, "x");
    capacity = INT_MAX;
    kestal_strcat(&buffer, &capacity, "y");
    EXPECT_STREQ(buffer, "xy");
    EXPECT_EQ(capacity, INT_MAX);
}

TEST_F(Strcat, NullPointersAreIgnored)
{
    kestal_strcat(nullptr, &capacity, "x");
    kestal_strcat(&buffer, nullptr, "x");
    kestal_strcat(&buffer, &capacity, nullptr);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(capacity, 0);
}

class Execute : public LibraryTest {
protected:
    static int execute(const char *command) { return kestal_execute(command, vector); }
    Execute()
    {
        memset(buffers, 0, sizeof(buffers));
        vector[0] = buffers[0];
        vector[1] = buffers[1];
        vector[2] = nullptr;
    }
    static char buffers[2][64];
    static char *vector[3];
};
char Execute::buffers[2][64];
char *Execute::vector[3];

TEST_F(Execute, FillsTheBuffersAndLosesFurtherLines)
{
    EXPECT_EQ(execute("printf 'one\\ntwo\\nthree\\n'"), 0);
    EXPECT_STREQ(buffers[0], "one");
    EXPECT_STREQ(buffers[1], "two");
    EXPECT_EQ(p().texts(5), std::vector<std::string>{"[kestal_execute] START"});
}

TEST_F(Execute, FewerLinesThanBuffersIsAFailure)
{
    EXPECT_EQ(execute("echo one"), -1);
    EXPECT_STREQ(buffers[0], "one");
    EXPECT_TRUE(p().traced(1, "[kestal_execute] fgets() Error. cmd=echo one i=1"));
}

TEST_F(Execute, ExitCodeComesFirst)
{
    EXPECT_EQ(execute("printf 'one\\ntwo\\n'; exit 2"), 2);
    EXPECT_STREQ(buffers[1], "two");
    EXPECT_EQ(execute("exit 255"), 255);
}

TEST_F(Execute, LongLineArrivesInPieces)
{
    const std::string line(100, 'x');
    EXPECT_EQ(execute(("echo " + line).c_str()), 0);
    EXPECT_EQ(std::string(buffers[0], 64), std::string(63, 'x') + '\0');
    EXPECT_EQ(std::string(buffers[1]), std::string(37, 'x'));
}

TEST_F(Execute, NoTerminatorIsWrittenBehindALine)
{
    memset(buffers, '#', sizeof(buffers));
    vector[1] = nullptr;
    EXPECT_EQ(execute("echo one"), 0);
    EXPECT_EQ(std::string(buffers[0], 5), "one##");
}

TEST_F(Execute, EmptyVectorReadsNothing)
{
    vector[0] = nullptr;
    EXPECT_EQ(execute("exit 0"), 0);
    EXPECT_EQ(execute("exit 3"), 3);
}

TEST_F(Execute, ShellThatCanNotBeStarted)
{
    p().fail_kind("popen");
    EXPECT_EQ(execute("echo one"), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_execute] popen() Error. cmd=echo one"));
    EXPECT_TRUE(p().calls_of("pclose").empty());
}

TEST_F(Execute, ShellEndedByASignalIsReportedOnceAndTheStreamClosedOnce)
{
    EXPECT_EQ(execute("printf 'one\\ntwo\\n'; kill -9 $$"), 0);
    EXPECT_EQ(p().texts(1), std::vector<std::string>{"[zKTmc_execute_cmd] cmd may fail. "
                                                     "cmd=printf 'one\\ntwo\\n'; kill -9 $$ "
                                                     "status=9"});
    EXPECT_EQ(p().calls_of("pclose").size(), 1u);
}

TEST_F(Execute, CloseThatFailsEndsAsExitCode255)
{
    p().fail_kind("pclose");
    EXPECT_EQ(execute("printf 'one\\ntwo\\n'"), 255);
    EXPECT_TRUE(p().traced(1,
                           "[zKTmc_execute_cmd] cmd may fail. cmd=printf 'one\\ntwo\\n' "
                           "status=ffffffff"));
}

TEST_F(Execute, NullPointersAreRefused)
{
    EXPECT_EQ(kestal_execute(nullptr, vector), -931);
    EXPECT_EQ(kestal_execute("true", nullptr), -931);
    EXPECT_TRUE(p().calls_of("popen").empty());
}
