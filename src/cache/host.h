// The program that uses the library, and where its files belong.
#pragma once

#include <string>

namespace cache {

// The library's folder below the user's folder for the data of programs. Both end with "/".
std::wstring dataFolder(const std::wstring& userData);

// Paths have "/" between the components; folders end with it.
class Host {
 public:
  // The running process. Throws std::runtime_error if the system does not tell enough of it.
  static Host current();

  // `executable` is the path of the program; `userData` the user's folder for the data of programs. On a system where
  // the program's folder is no place for files (platform::mayHoldHostFiles), they go to the data folder, too.
  Host(std::wstring executable, const std::wstring& userData);

  // The library's folder below the user's data.
  const std::wstring& dataFolder() const { return dataFolder_; }

  std::wstring configurationFile() const;

  // Where the default cache root beside the program and the clean-up's lock file are.
  std::wstring hostCacheRoot() const;

  // The program's file name without its folder.
  std::wstring executableName() const;

  // The program's name and a UUID of its path: the same for all processes of one program, different for any other.
  std::wstring tag() const;

  // Held by the process of this program that may clean up.
  std::wstring cleanUpLockFile() const;

 private:
  std::wstring executable_;
  std::wstring dataFolder_;
  std::wstring hostFolder_;
};

}  // namespace cache
