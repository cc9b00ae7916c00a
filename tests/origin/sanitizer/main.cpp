#include "faults.h"

#include <gtest/gtest.h>

#include <string>

int main(int argc, char** argv)
{
    if (argc == 4 && std::string(argv[1]) == "--fault") return velstream::testing::run_with_fault(argv[2], argv[3]);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
