// Settings that one platform alone has: the programs of all platforms read one file.
#include "settings.h"

#include "platform_test.h"

using namespace test;

namespace {

// The settings are read once in a process: each test reads its file in a child.
int with_settings(const std::string &text, const std::function<void()> &body)
{
    const std::string file = folder() + "/own.conf";
    fs::create_directories(folder());  // other tests take it away
    write_file(file, text);
    return in_process([&] {
        setenv("KESTA_PLATFORM_CONF", file.c_str(), 1);
        body();
    });
}

}  // namespace

TEST(Settings, OfOnePlatformAreFoundByItAndPassedByOthers)
{
    EXPECT_EQ(with_settings("cluster.endpoints = 10.0.0.1:2379, 10.0.0.2:2379\ntrace_keep = 7\n",
                            [] {
                                EXPECT_STREQ(platform::platform_setting("cluster.endpoints"),
                                             "10.0.0.1:2379, 10.0.0.2:2379");
                                EXPECT_EQ(platform::platform_setting("cluster.prefix"), nullptr);
                                EXPECT_EQ(platform::settings().trace_keep, 7);
                                EXPECT_STREQ(platform::settings_problem(), "");
                            }),
              0);
}

TEST(Settings, OfOnePlatformAreOverriddenByAVariable)
{
    EXPECT_EQ(with_settings("cluster.prefix = /a\ncluster.prefix = /b\n",
                            [] {
                                EXPECT_STREQ(platform::platform_setting("cluster.prefix"), "/b") << "the last one";
                                setenv("KESTA_PLATFORM_CLUSTER_PREFIX", "/c", 1);
                                EXPECT_STREQ(platform::platform_setting("cluster.prefix"), "/c");
                            }),
              0);
}

TEST(Settings, OfOnePlatformThatCanNotBeKeptAreToldOf)
{
    std::string many;
    for (int i = 0; i < 17; ++i) {
        many += "cluster.key" + std::to_string(i) + " = x\n";
    }
    for (const std::string &text :
         {many, "cluster.key = " + std::string(256, 'x') + "\n", "cluster." + std::string(64, 'k') + " = x\n"}) {
        EXPECT_EQ(with_settings(text, [] { EXPECT_STRNE(platform::settings_problem(), ""); }), 0);
    }
}
