// Who removes a shared image's files: the process that lets go of it last.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/files.h"
#include "platform/lock_files.h"

namespace interprocess {

// One holder of a shared image. It keeps the identifier's lock file open and locked for sharing; when it goes, it tries
// to lock the file for itself, which succeeds if there is no other holder, in this process or another. On Linux that
// lock is also what keeps others from removing the file.
class InterprocessReleaseResourceOwnership {
 public:
  // Makes the lock file, and its folder, if they are missing. `hasOwnership` becomes true or false when the object is
  // destroyed. Null, with a logged reason, if the file cannot be had or someone keeps it locked for ten seconds.
  static std::shared_ptr<InterprocessReleaseResourceOwnership> create(const std::string& lockFilePath,
                                                                      std::shared_ptr<bool> hasOwnership);

  // Finds out whether this was the last holder, and removes the lock file then. In a forked process it only closes the
  // file: its parent is the holder.
  ~InterprocessReleaseResourceOwnership();
  InterprocessReleaseResourceOwnership(const InterprocessReleaseResourceOwnership&) = delete;
  InterprocessReleaseResourceOwnership& operator=(const InterprocessReleaseResourceOwnership&) = delete;

 private:
  InterprocessReleaseResourceOwnership(std::string lockFilePath, std::shared_ptr<bool> hasOwnership);

  bool postInitialize();
  bool hold();
  bool letGo();
  bool isLastHolder();
  void removeLockFile();

  std::string lockFilePath_;
  std::shared_ptr<bool> hasOwnership_;
  platform::Stream lockFileStream_;  // keeps the file from being removed where the system does that for open files
  std::unique_ptr<platform::FileLock> fileLock_;
  std::uint32_t processIdOfConstructor_;
};

}  // namespace interprocess
