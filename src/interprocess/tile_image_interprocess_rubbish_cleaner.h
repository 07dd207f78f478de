// Removes what processes that ended without letting go of their shared images left of them.
#pragma once

#include <memory>
#include <mutex>

#include "interprocess/shared_image_files.h"
#include "platform/files.h"

namespace interprocess {

// Removes the lock files that no process holds, each with the descriptor of its identifier. Backing files are the cache
// folders' matter. Any thread may call it.
class TileImageInterprocessRubbishCleaner {
 public:
  // The process's own; it is there until the process ends.
  static std::shared_ptr<TileImageInterprocessRubbishCleaner> instance();

  explicit TileImageInterprocessRubbishCleaner(SharedImageFiles files) : files_(std::move(files)) {}

  // Works on the first call only, and unless another process has cleaned and is still there. Nothing is reported as a
  // failure.
  void clearRubbish();

 private:
  void removeAbandoned(const std::wstring& identifier) const;

  SharedImageFiles files_;
  platform::Stream cleanerFileStream_;  // open from the clean-up on
  std::mutex cleanerMutex_;
  bool hasCleared_ = false;
};

}  // namespace interprocess
