#include "platform/volumes.h"

#include <windows.h>

#include <algorithm>
#include <cwctype>

namespace platform {

// "E:/x" and "e:/y" give "e:"; all paths without a drive letter share the empty key.
std::wstring driveKey(const std::wstring& folder) {
  const std::size_t colon = folder.find(L':');
  if (colon == std::wstring::npos) {
    return {};
  }
  std::wstring key = folder.substr(0, colon + 1);
  std::transform(key.begin(), key.end(), key.begin(),
                 [](wchar_t character) { return static_cast<wchar_t>(std::towlower(character)); });
  return key;
}

std::uint64_t fixedDriveFreeBytes(const std::wstring& folder) {
  const std::wstring drive = driveKey(folder);
  return GetDriveTypeW(drive.c_str()) == DRIVE_FIXED ? freeBytes(drive).value_or(0) : 0;
}

std::optional<std::uint64_t> freeBytes(const std::wstring& folder) {
  ULARGE_INTEGER available{};
  if (GetDiskFreeSpaceExW(folder.c_str(), &available, nullptr, nullptr) == 0) {
    return std::nullopt;
  }
  return available.QuadPart;
}

}  // namespace platform
