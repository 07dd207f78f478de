// Where the files are by which processes share images.
#pragma once

#include <string>
#include <vector>

namespace interprocess {

// Below the library's folder in the user's data, one descriptor and one lock file for each identifier. An identifier is
// the caller's text as it stands; one with slashes names files in sub-folders.
class SharedImageFiles {
 public:
  static constexpr const wchar_t* kDescriptorExtension = L".json";
  static constexpr const wchar_t* kLockFileExtension = L".lockfile";

  // Those of the user who runs this process.
  static SharedImageFiles ofUser();

  // `dataFolder` ends with "/".
  explicit SharedImageFiles(std::wstring dataFolder) : dataFolder_(std::move(dataFolder)) {}

  std::wstring descriptor(const std::wstring& identifier) const;
  std::wstring lockFile(const std::wstring& identifier) const;

  // Held by the one process at a time that removes what dead processes left.
  std::wstring cleanersLockFile() const { return dataFolder_ + L"KvTileImage_InterprocessRubbishCleaner.filelock"; }

  // Held by the one process at a time that makes, finds or lets go of a shared image.
  std::wstring sharingLockFile() const { return dataFolder_ + L"KvTileImage_Interprocess.filelock"; }

  const std::wstring& dataFolder() const { return dataFolder_; }
  std::wstring descriptorFolder() const { return dataFolder_ + L"interprocessId/json/"; }

  // The identifiers that have a descriptor, or a lock file, in no order.
  std::vector<std::wstring> identifiersWithDescriptor() const;
  std::vector<std::wstring> identifiersWithLockFile() const;

 private:
  std::wstring lockFileFolder() const { return dataFolder_ + L"interprocessId/lockfiles/"; }

  std::wstring dataFolder_;
};

// Whether the files of `identifier` lie in their folders: it is no absolute path, begins with no drive letter and has
// no component "..".
bool staysInItsFolder(const std::wstring& identifier);

}  // namespace interprocess
