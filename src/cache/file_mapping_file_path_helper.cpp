#include "cache/file_mapping_file_path_helper.h"

#include <algorithm>
#include <atomic>
#include <cwchar>
#include <limits>

#include "platform/paths.h"
#include "platform/processes.h"

namespace cache {
namespace {

std::atomic<std::uint64_t> nextNumber{0};

}  // namespace

std::optional<FileMappingFilePathHelper::FileInfo> FileMappingFilePathHelper::getUniqueFileInfo(
    const std::wstring& folder) {
  if (folder.empty()) {
    return std::nullopt;
  }
  const std::uint64_t number = nextNumber++;
  return FileInfo{filePath(folder, prefix(), kExtension, number), number};
}

std::wstring FileMappingFilePathHelper::filePath(const std::wstring& folder, std::wstring_view prefix,
                                                 std::wstring_view extension, std::uint64_t number) {
  std::wstring path = folder;
  if (!folder.ends_with(L'/') && !folder.ends_with(L'\\')) {
    path += L'/';
  }
  path += prefix;
  path += std::to_wstring(number);
  path += extension;
  return path;
}

// Put together anew each time: a forked process has another id.
std::wstring FileMappingFilePathHelper::prefix() {
  return L"process_" + std::to_wstring(platform::currentProcessId()) + L'_';
}

std::optional<std::int32_t> FileMappingFilePathHelper::processIdOf(const std::wstring& path) {
  const std::wstring stem = platform::widePath(platform::filesystemPath(path).stem());
  const std::size_t first = stem.find(L'_');
  const std::size_t second = first == std::wstring::npos ? first : stem.find(L'_', first + 1);
  if (second == std::wstring::npos) {
    return std::nullopt;
  }
  const std::wstring text = stem.substr(first + 1, second - first - 1);
  constexpr long long kMost = std::numeric_limits<std::int32_t>::max();
  constexpr long long kLeast = std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(std::clamp(std::wcstoll(text.c_str(), nullptr, 10), kLeast, kMost));
}

}  // namespace cache
