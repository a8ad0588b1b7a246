#include <gtest/gtest.h>

#include <cstring>

#include "private_root.h"

int main(int argc, char **argv)
{
    bool lists_only = false;
    for (int i = 1; i < argc; ++i) {
        lists_only = lists_only || strcmp(argv[i], "--gtest_list_tests") == 0;
    }
    testing::InitGoogleTest(&argc, argv);
    if (!lists_only) {
        test::enter_private_root();
    }
    return RUN_ALL_TESTS();
}
