#include "vrbapi.h"

#include <arpa/inet.h>
#include <errno.h>
#include <limits.h>

#include <thread>

#include "platform_test.h"

using namespace test;

class Vrbapi : public PlatformTest {
protected:
    std::string path = folder() + "/number";
    _VRBAPIERRINFO error{};
    int value = -77;

    int get(int lowest, int highest)
    {
        error = {};
        return vrbapi_getint_from_file(path.c_str(), 1, lowest, highest, &value, &error);
    }
};

TEST_F(Vrbapi, IntegersAreReplacedWhole)
{
    for (const int number : {0, 3, -1, INT_MAX, INT_MIN}) {
        EXPECT_EQ(vrbapi_setint_to_file(path.c_str(), number, &error), 0);
        EXPECT_EQ(get(INT_MIN, INT_MAX), 0);
        EXPECT_EQ(value, number);
    }
    EXPECT_EQ(read_file(path), "-2147483648\n");
    EXPECT_EQ(error.s_errno, 0);
}

TEST_F(Vrbapi, ReaderNeverSeesAPartOfANumber)
{
    ASSERT_EQ(vrbapi_setint_to_file(path.c_str(), 1111111111, &error), 0);
    const pid_t writer = fork();
    if (writer == 0) {
        for (int i = 0;; ++i) {
            vrbapi_setint_to_file(path.c_str(), i % 2 == 0 ? 1111111111 : 22, &error);
        }
    }
    for (int look = 0; look < 300; ++look) {
        ASSERT_EQ(get(0, INT_MAX), 0);
        ASSERT_TRUE(value == 1111111111 || value == 22) << value;
    }
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
}

TEST_F(Vrbapi, RangeIsChecked)
{
    write_file(path, "4\n");
    EXPECT_EQ(get(0, 4), 0);
    EXPECT_EQ(get(4, 9), 0);
    value = -77;
    EXPECT_NE(get(0, 3), 0);
    EXPECT_STREQ(error.func_name, "range");
    EXPECT_EQ(error.s_errno, ERANGE);
    EXPECT_NE(get(5, 9), 0);
    EXPECT_EQ(value, -77) << "not touched";
}

TEST_F(Vrbapi, OnlyAnIntegerIsAnInteger)
{
    for (const char *good : {"3", " 3\n", "3 \n\n", "+3"}) {
        write_file(path, good);
        EXPECT_EQ(get(0, 3), 0) << good;
    }
    for (const char *bad : {"", "\n", "x", "3x", "3 4", "0x3", "99999999999999999999"}) {
        write_file(path, bad);
        EXPECT_NE(get(INT_MIN, INT_MAX), 0) << bad;
        EXPECT_STREQ(error.func_name, "parse");
    }
}

TEST_F(Vrbapi, FailuresNameTheirFunction)
{
    EXPECT_NE(get(0, 3), 0);
    EXPECT_STREQ(error.func_name, "read");
    EXPECT_EQ(error.s_errno, ENOENT);
    EXPECT_NE(vrbapi_setint_to_file((folder() + "/none/number").c_str(), 1, &error), 0);
    EXPECT_STREQ(error.func_name, "write");
    EXPECT_EQ(error.s_errno, ENOENT);
    EXPECT_NE(vrbapi_setint_to_file(nullptr, 1, &error), 0);
    EXPECT_EQ(error.s_errno, EINVAL);
    EXPECT_NE(vrbapi_setint_to_file(nullptr, 1, nullptr), 0);
    EXPECT_NE(vrbapi_getint_from_file(path.c_str(), 1, 0, 1, nullptr, &error), 0);
    faults("vrb_set 1 once fail 28\nvrb_get 1 once fail 5\nvrb_info 1 once fail 6\nvrb_net 1 once fail 7\n");
    EXPECT_NE(vrbapi_setint_to_file(path.c_str(), 1, &error), 0);
    EXPECT_EQ(error.s_errno, 28);
    EXPECT_NE(get(0, 3), 0);
    EXPECT_EQ(error.s_errno, 5);
    std::uint8_t master = 255;
    int extra;
    EXPECT_NE(vrbgetsanfwinfo(1, &master, &error, &extra), 0);
    EXPECT_EQ(error.s_errno, 6);
    EXPECT_EQ(master, 255);
    vrb_netconfig_t records[2];
    EXPECT_NE(vrbgetnetconfig(records), 0);
    EXPECT_EQ(errno, 7);
}

TEST_F(Vrbapi, MasterAndAddressesComeFromTheSettings)
{
    std::uint8_t master = 255;
    int extra = -1;
    EXPECT_EQ(vrbgetsanfwinfo(1, &master, &error, &extra), 0);
    EXPECT_EQ(master, 1);
    EXPECT_NE(vrbgetsanfwinfo(2, &master, &error, &extra), 0);
    vrb_netconfig_t records[2];
    EXPECT_EQ(vrbgetnetconfig(records), 0);
    EXPECT_EQ(records[0].cntno, 2);
    EXPECT_EQ(records[1].cntno, 3);
    EXPECT_STREQ(inet_ntoa(records[0].address), "10.0.0.2");
    EXPECT_STREQ(inet_ntoa(records[1].address), "10.0.0.3");
    EXPECT_NE(vrbgetnetconfig(nullptr), 0);
}
