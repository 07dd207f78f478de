// The folders for backing files.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "cache/host.h"
#include "platform/files.h"

namespace cache {

// Who has files of dead processes in use, where that does not show in the files themselves.
class FileUsers {
 public:
  FileUsers() = default;
  FileUsers(const FileUsers&) = delete;
  FileUsers& operator=(const FileUsers&) = delete;
  virtual ~FileUsers() = default;

  // Whether a process has the backing file in use. One that none has is not taken into use while this object lives.
  virtual bool use(const std::wstring& file) const = 0;
};

// Finds them anew; the object lives as long as the clean-up that asks. May throw a std::exception, which ends the
// clean-up.
using FindFileUsers = std::unique_ptr<const FileUsers> (*)();

// The cache folders of this program, as the user's configuration file names their roots, and the removal of what dead
// processes left in them. The folders are settled at construction; any thread may use the rest.
class FileMappingDirHelper {
 public:
  // The process's own, made on first use with `findUsers`; it is there until the process ends. Throws a std::exception
  // that tells the reason if it cannot be made; the next use tries again.
  static std::shared_ptr<FileMappingDirHelper> instance(FindFileUsers findUsers);

  // Makes the folders and cleans up. Throws std::filesystem::filesystem_error if the folder of a configured root cannot
  // be made. Without any usable root the list stays empty, with a logged reason.
  explicit FileMappingDirHelper(Host host, FindFileUsers findUsers = nullptr);

  // The cache folders, in the order in which the configuration names their roots; each exists and ends with "/".
  const std::vector<std::wstring>& rootDirList() const { return rootDirList_; }

  // Whether the folders take files in turn; else the first with room takes them.
  bool bAlternateUseDisk() const { return bAlternateUseDisk_; }

  // The index in rootDirList of the folder for a new file of `fileBytes` bytes. With several folders it lies on a disk
  // of this machine and has 1 GiB more room than the file takes; a single one is not looked at. -1, with a logged
  // reason, if there is none.
  std::int64_t getSuitableRootDirIndex(std::uint64_t fileBytes) const;

  // The folder at `index`; empty if there is none.
  std::wstring rootDir(std::int64_t index) const;

  const Host& host() const { return host_; }

  // Removes what processes of this program that ended without it left behind, on the first call. Problems are logged
  // and end nothing.
  void clearRubbish();

  // Reads the configured roots and the flag; writes the default file if there is none. False if the file cannot be
  // used; the list is empty and the flag true then. Throws std::range_error if a root is not UTF-8.
  bool getFromConfigW(std::vector<std::wstring>& list, bool& bAlternateUseDisk) const;

 private:
  bool initRootDirList();
  std::vector<std::wstring> defaultRoots() const;
  bool lockForCleanUp();
  void removeLeftovers() const;
  std::vector<std::wstring> backingFiles() const;
  bool hasRoom(std::size_t index, std::uint64_t fileBytes) const;

  Host host_;
  FindFileUsers findUsers_;
  platform::Stream lockFile_;  // open from the clean-up to the end of the process
  std::vector<std::wstring> rootDirList_;
  bool bAlternateUseDisk_ = true;
  std::mutex mutex_;
  bool cleared_ = false;
};

}  // namespace cache
