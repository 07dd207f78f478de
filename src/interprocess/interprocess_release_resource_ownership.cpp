#include "interprocess/interprocess_release_resource_ownership.h"

#include <chrono>
#include <exception>
#include <filesystem>
#include <thread>

#include "base/log.h"
#include "platform/paths.h"
#include "platform/processes.h"
#include "platform/win_interprocess.h"

namespace interprocess {
namespace {

using platform::FileLock;
using win_interprocess::interprocess_exception;

constexpr const char* kPostInitialize = "InterprocessReleaseResourceOwnership::postInitialize";
constexpr const char* kDestructor = "InterprocessReleaseResourceOwnership::~InterprocessReleaseResourceOwnership";

// Whoever locks the file for itself removes it and is done; only a process that was stopped takes longer. Others wait
// meanwhile for their turn, three times as long.
constexpr std::chrono::seconds kPatience{10};
constexpr int kAttempts = 100;
constexpr std::chrono::milliseconds kPause{1};
constexpr int kTimesAsked = 6;

}  // namespace

std::shared_ptr<InterprocessReleaseResourceOwnership> InterprocessReleaseResourceOwnership::create(
    const std::string& lockFilePath, std::shared_ptr<bool> hasOwnership) {
  std::shared_ptr<InterprocessReleaseResourceOwnership> holder(
      new InterprocessReleaseResourceOwnership(lockFilePath, std::move(hasOwnership)));
  if (!holder->postInitialize()) {
    base::logger().log(ember_logger::error, "[%s] postInitialize failed",
                       "InterprocessReleaseResourceOwnership::create");
    return nullptr;
  }
  return holder;
}

InterprocessReleaseResourceOwnership::InterprocessReleaseResourceOwnership(std::string lockFilePath,
                                                                           std::shared_ptr<bool> hasOwnership)
    : lockFilePath_(std::move(lockFilePath)),
      hasOwnership_(std::move(hasOwnership)),
      processIdOfConstructor_(platform::currentProcessId()) {}

bool InterprocessReleaseResourceOwnership::postInitialize() {
  if (lockFilePath_.empty()) {
    return false;
  }
  bool held = false;
  try {
    held = hold();
  } catch (const interprocess_exception& exception) {
    base::logger().log(ember_logger::error, "[%s] interprocess_exception:%s", kPostInitialize, exception.what());
  } catch (const std::exception&) {
    base::logger().log(ember_logger::error, "[%s] unknow exception", kPostInitialize);
  }
  if (!held) {
    fileLock_.reset();  // what is not held is not let go of
  }
  return held;
}

bool InterprocessReleaseResourceOwnership::hold() {
  const std::wstring path = platform::fromNarrowPath(lockFilePath_);
  if (platform::createFolders(platform::widePath(platform::filesystemPath(path).parent_path()))) {
    base::logger().log(ember_logger::error, "[%s] dir create failed", kPostInitialize);
    return false;
  }
  // A file that was removed between its opening and its locking locks nobody out: the next one is the file.
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    lockFileStream_ = platform::openToKeep(lockFilePath_);
    if (lockFileStream_ == nullptr) {
      base::logger().log(ember_logger::error, "[%s] file:%s open failed", kPostInitialize, lockFilePath_.c_str());
      return false;
    }
    fileLock_ = std::make_unique<FileLock>(lockFilePath_, FileLock::IfMissing::make);
    if (!fileLock_->waitShared(kPatience)) {
      throw interprocess_exception("a process has kept " + lockFilePath_ + " locked for 10 seconds");
    }
    if (fileLock_->isNamed(lockFilePath_)) {
      return true;
    }
  }
  throw interprocess_exception(lockFilePath_ + " is removed again and again");
}

InterprocessReleaseResourceOwnership::~InterprocessReleaseResourceOwnership() {
  if (fileLock_ == nullptr || platform::currentProcessId() != processIdOfConstructor_) {
    return;
  }
  try {
    *hasOwnership_ = letGo();
  } catch (const std::exception& exception) {
    base::logger().log(ember_logger::error, "[%s] interprocess_exception:%s", kDestructor, exception.what());
  }
}

bool InterprocessReleaseResourceOwnership::letGo() {
  fileLock_->unlock();
  if (!isLastHolder()) {
    return false;
  }
  const bool owned = fileLock_->isNamed(lockFilePath_);
  if (owned) {
    removeLockFile();
  }
  fileLock_->unlock();
  return owned;
}

// Locks the file for this holder alone unless there is another. Who keeps it locked against sharing is no holder but a
// clean-up that looks at it, for a moment; that moment may end between the two questions, so they are asked again.
bool InterprocessReleaseResourceOwnership::isLastHolder() {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  for (int timesShared = 0; !fileLock_->tryExclusive(); std::this_thread::sleep_for(kPause)) {
    if (fileLock_->tryShared()) {
      fileLock_->unlock();
      if (++timesShared == kTimesAsked) {
        return false;
      }
    }
    if (std::chrono::steady_clock::now() > end) {
      throw interprocess_exception("a process has kept " + lockFilePath_ + " locked for 10 seconds");
    }
  }
  return true;
}

void InterprocessReleaseResourceOwnership::removeLockFile() {
  lockFileStream_.reset();
  std::error_code ignored;
  const bool removed =
      std::filesystem::remove(platform::filesystemPath(platform::fromNarrowPath(lockFilePath_)), ignored);
  base::logger().log(ember_logger::info, "[%s] has Ownership. lockFilePath remove success:%d [%s]", kDestructor,
                     removed ? 1 : 0, lockFilePath_.c_str());
}

}  // namespace interprocess
