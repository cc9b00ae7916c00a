#include "rounds.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

int main(int argc, char** argv)
{
    if (argc > 1 && std::string(argv[1]) == "--round")
        return velstream::testing::be_round(std::vector<std::string>(argv + 2, argv + argc));
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
