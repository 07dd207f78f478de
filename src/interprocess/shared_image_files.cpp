#include "interprocess/shared_image_files.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <string_view>

#include "cache/host.h"
#include "platform/paths.h"

namespace interprocess {
namespace {

constexpr std::wstring_view kSeparators = L"/\\";

bool isLetter(wchar_t character) {
  return (character >= L'a' && character <= L'z') || (character >= L'A' && character <= L'Z');
}

// The identifiers of the files in `folder` and below whose names end with `extension`.
std::vector<std::wstring> identifiersIn(const std::wstring& folder, std::wstring_view extension) {
  std::vector<std::wstring> identifiers;
  std::error_code error;
  for (std::filesystem::recursive_directory_iterator entry(platform::filesystemPath(folder), error), end;
       !error && entry != end; entry.increment(error)) {
    try {
      const std::wstring path = platform::widePath(entry->path());
      std::error_code unknown;
      if (path.starts_with(folder) && path.ends_with(extension) &&
          std::filesystem::is_regular_file(entry->symlink_status(unknown))) {
        identifiers.push_back(path.substr(folder.size(), path.size() - folder.size() - extension.size()));
      }
    } catch (const std::range_error&) {  // a name that is no text is none of ours
    }
  }
  return identifiers;
}

}  // namespace

SharedImageFiles SharedImageFiles::ofUser() { return SharedImageFiles(cache::dataFolder(platform::localDataFolder())); }

std::wstring SharedImageFiles::descriptor(const std::wstring& identifier) const {
  return descriptorFolder() + identifier + kDescriptorExtension;
}

std::wstring SharedImageFiles::lockFile(const std::wstring& identifier) const {
  return lockFileFolder() + identifier + kLockFileExtension;
}

std::vector<std::wstring> SharedImageFiles::identifiersWithDescriptor() const {
  return identifiersIn(descriptorFolder(), kDescriptorExtension);
}

std::vector<std::wstring> SharedImageFiles::identifiersWithLockFile() const {
  return identifiersIn(lockFileFolder(), kLockFileExtension);
}

bool staysInItsFolder(const std::wstring& identifier) {
  const bool hasDrive = identifier.size() > 1 && isLetter(identifier[0]) && identifier[1] == L':';
  if (hasDrive || identifier.starts_with(L'/') || identifier.starts_with(L'\\')) {
    return false;
  }
  for (std::size_t begin = 0; begin <= identifier.size();) {
    const std::size_t end = std::min(identifier.find_first_of(kSeparators, begin), identifier.size());
    if (identifier.compare(begin, end - begin, L"..") == 0) {
      return false;
    }
    begin = end + 1;
  }
  return true;
}

}  // namespace interprocess
