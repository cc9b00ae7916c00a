#include "rounds.h"

#include <gtest/gtest.h>

namespace velstream::testing {

TEST(ManyStreams, EightStartedAndStoppedAtOnceFiftyTimesAllEnd)
{
    for (int round = 0; round < 50; ++round) {
        SCOPED_TRACE(round);
        ASSERT_EQ(run_round({"eight-streams", std::to_string(round)}).status, 0);
    }
}

} // namespace velstream::testing
