#include "platform_test.h"

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    const std::string &at = test::folder();
    setenv("KESTA_PLATFORM_CONF", (at + "/none.conf").c_str(), 1);
    setenv("KESTA_PLATFORM_NV_DIR", (at + "/nv").c_str(), 1);
    setenv("KESTA_PLATFORM_SYSBACK_DIR", (at + "/sysback").c_str(), 1);
    setenv("KESTA_PLATFORM_TRACE_FILE", (at + "/trace.log").c_str(), 1);
    setenv("KESTA_PLATFORM_STATUS_FILE", (at + "/status").c_str(), 1);
    setenv("KESTA_PLATFORM_FAULT_FILE", (at + "/faults").c_str(), 1);
    setenv("KESTA_PLATFORM_CONTROLLER_NUMBER", "2", 1);
    setenv("KESTA_PLATFORM_OTHER_NUMBER", "3", 1);
    setenv("KESTA_PLATFORM_MASTER", "1", 1);
    setenv("KESTA_PLATFORM_ADDRESS_OWN", "10.0.0.2", 1);
    setenv("KESTA_PLATFORM_ADDRESS_OTHER", "10.0.0.3", 1);
    const int result = RUN_ALL_TESTS();
    std::filesystem::remove_all(at);
    return result;
}
