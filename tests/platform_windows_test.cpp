// What only Windows has.
#include <gtest/gtest.h>

#include "platform/system_info.h"
#include "platform/windows/security_attributes.h"

namespace {

TEST(SystemInfoTest, MapsFilesInUnitsOf64KiB) { EXPECT_EQ(platform::allocationGranularity(), 65536U); }

TEST(SecurityAttributesTest, GrantEveryoneAccessAndAreNotInherited) {
  const SECURITY_ATTRIBUTES* const attributes = platform::permissiveSecurityAttributes();
  ASSERT_NE(attributes, nullptr);
  EXPECT_EQ(attributes->nLength, 24U);
  EXPECT_FALSE(attributes->bInheritHandle);
  BOOL present = FALSE;
  BOOL defaulted = TRUE;
  PACL list = reinterpret_cast<PACL>(1);
  ASSERT_TRUE(GetSecurityDescriptorDacl(attributes->lpSecurityDescriptor, &present, &list, &defaulted));
  EXPECT_TRUE(present);
  EXPECT_FALSE(defaulted);
  EXPECT_EQ(list, nullptr);
}

}  // namespace
