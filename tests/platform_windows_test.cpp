// What only Windows has.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "platform/paths.h"
#include "platform/system_info.h"
#include "platform/volumes.h"
#include "platform/win_interprocess.h"
#include "platform/windows/security_attributes.h"
#include "support/scratch_folder.h"
#include "support/system.h"
#include "support/whole_file.h"

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

// ---- Mapped files

TEST(WindowsMappedFilesTest, StayOpenUntilTheLastOfMappingAndRegionsGoes) {
  const support::ScratchFolder scratch;
  const std::filesystem::path path = scratch.path() / "file";
  support::writeFile(path, "text");
  using win_interprocess::file_mapping;
  using win_interprocess::mapped_region;
  auto mapping = std::make_unique<file_mapping>(path.string(), win_interprocess::kReadWrite);
  EXPECT_TRUE(support::isOpen(path));
  auto first = std::make_unique<mapped_region>(*mapping, win_interprocess::kReadWrite, 0, 0);
  auto second = std::make_unique<mapped_region>(*mapping, win_interprocess::kReadWrite, 1, 2);
  mapping.reset();
  EXPECT_TRUE(support::isOpen(path));
  first.reset();
  EXPECT_TRUE(support::isOpen(path));
  second.reset();
  EXPECT_FALSE(support::isOpen(path));
}

TEST(WindowsMappedFilesTest, LetOthersReadAndWriteTheFile) {
  const support::ScratchFolder scratch;
  const std::filesystem::path path = scratch.path() / "file";
  support::writeFile(path, "text");
  const win_interprocess::file_mapping mapping(path.string(), win_interprocess::kReadWrite);
  const HANDLE other =
      CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE | DELETE,
                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING, 0, nullptr);
  EXPECT_NE(other, INVALID_HANDLE_VALUE);
  CloseHandle(other);
}

// ---- Paths and volumes

TEST(WindowsPathsTest, KeepTheLibrarysFilesInTheUsersLocalData) {
  const wchar_t* const local = _wgetenv(L"LOCALAPPDATA");
  ASSERT_NE(local, nullptr);
  std::wstring expected = std::wstring(local) + L'/';
  std::replace(expected.begin(), expected.end(), L'\\', L'/');
  EXPECT_EQ(platform::localDataFolder(), expected);
}

TEST(WindowsPathsTest, HoldHostFilesWhereverTheProgramIs) {
  EXPECT_TRUE(platform::mayHoldHostFiles(L"C:/Program Files/Sample/"));
}

TEST(WindowsPathsTest, AreInTheCodePageOrRefused) {
  EXPECT_EQ(platform::narrowPath(L"C:/a b/c.txt"), "C:/a b/c.txt");
  EXPECT_EQ(platform::narrowPath(L""), "");
  if (GetACP() == CP_UTF8) {
    EXPECT_EQ(platform::narrowPath(L"C:/\u56FE"), "C:/\xE5\x9B\xBE");
  } else {
    EXPECT_THROW(platform::narrowPath(L"C:/\u56FE"), std::range_error);
    EXPECT_THROW(platform::narrowPath(L"C:/\u0101"), std::range_error);  // not as "a", which is another folder
  }
}

TEST(WindowsVolumesTest, AreTheLettersBeforeTheColon) {
  EXPECT_EQ(platform::driveKey(L"E:/x"), L"e:");
  EXPECT_EQ(platform::driveKey(L"e:\\y"), L"e:");
  EXPECT_EQ(platform::driveKey(L"E:"), L"e:");
  EXPECT_EQ(platform::driveKey(L"//server/share"), L"");
  EXPECT_EQ(platform::driveKey(L"relative/folder"), L"");
  EXPECT_EQ(platform::driveKey(L""), L"");
  EXPECT_EQ(platform::driveKey(L"//?/C:/x"), L"//?/c:");  // the text is taken as it is
}

TEST(WindowsVolumesTest, HaveRoomIfTheyAreDisksOfThisMachine) {
  const std::uint64_t expected = std::filesystem::space("C:/").available;
  constexpr double kOthersMayTake = 8.0 * (1U << 30);
  EXPECT_NEAR(static_cast<double>(platform::fixedDriveFreeBytes(L"C:/not/made/yet/")), static_cast<double>(expected),
              kOthersMayTake);
  EXPECT_NEAR(static_cast<double>(platform::freeBytes(L"C:/").value_or(0)), static_cast<double>(expected),
              kOthersMayTake);
  EXPECT_EQ(platform::fixedDriveFreeBytes(L"Q:/no/such/disk/"), 0U);
  EXPECT_EQ(platform::fixedDriveFreeBytes(L"//server/share/"), 0U);
  EXPECT_FALSE(platform::freeBytes(L"Q:/no/such/disk/"));
}

}  // namespace
