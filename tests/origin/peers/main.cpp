#include "rounds.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

int main(int argc, char** argv)
{
    // As every application that sends to an RTMP server: its sink writes to a connection that may be gone.
    std::signal(SIGPIPE, SIG_IGN);
    if (argc > 1 && std::string(argv[1]) == "--round")
        return velstream::testing::be_round(std::vector<std::string>(argv + 2, argv + argc));
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
