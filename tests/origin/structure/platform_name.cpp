#include "test_platform.h"

#include "Platform.h"

#include <gtest/gtest.h>

namespace velstream::testing {

std::string test_platform()
{
    return TEST_PLATFORM;
}

TEST(Platform, IsTheOneTheLibraryWasBuiltFor)
{
    EXPECT_EQ(Quorvis::VelStream::platform(), test_platform());
}

} // namespace velstream::testing
