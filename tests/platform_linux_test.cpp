// What only Linux has.
#include <gtest/gtest.h>

#include "platform/system_info.h"

namespace {

TEST(SystemInfoTest, MapsFilesInPages) { EXPECT_EQ(platform::allocationGranularity(), 4096U); }

}  // namespace
