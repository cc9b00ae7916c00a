#include "PrivateMounts.h"

#include <gtest/gtest.h>

#include <cstdio>

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    if (!::testing::GTEST_FLAG(list_tests)) {
        const std::string failure = velstream::testing::enter_private_mounts();
        if (!failure.empty()) {
            std::fprintf(stderr, "%s\n", failure.c_str());
            return 1;
        }
    }
    return RUN_ALL_TESTS();
}
