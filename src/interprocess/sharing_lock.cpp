#include "interprocess/sharing_lock.h"

#include <chrono>
#include <exception>
#include <stdexcept>

#include "base/log.h"
#include "interprocess/shared_image_files.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "platform/utf8.h"

namespace interprocess {
namespace {

using platform::FileLock;

constexpr std::chrono::seconds kPatience{30};

}  // namespace

SharingLock::SharingLock() {
  try {
    take();
  } catch (const std::exception& exception) {
    lock_.reset();
    base::logger().log(ember_logger::error, "[%s] shared images cannot be used now: %s", "SharingLock::SharingLock",
                       exception.what());
  }
}

void SharingLock::take() {
  const SharedImageFiles files = SharedImageFiles::ofUser();
  if (const auto error = platform::createFolders(files.dataFolder())) {
    throw std::runtime_error(platform::shownUtf8(files.dataFolder()) + " cannot be made: " + error.message());
  }
  const std::wstring path = files.sharingLockFile();
  lock_ = std::make_unique<FileLock>(platform::narrowPath(path), FileLock::IfMissing::make);
  if (!lock_->waitExclusive(kPatience)) {
    throw std::runtime_error("another process has kept " + platform::shownUtf8(path) +
                             " locked for 30 seconds: it makes or removes a very large image, or has been stopped");
  }
}

}  // namespace interprocess
