#include "interprocess/tile_image_interprocess_rubbish_cleaner.h"

#include <exception>
#include <filesystem>

#include "base/log.h"
#include "platform/paths.h"
#include "platform/utf8.h"

namespace interprocess {
namespace {

constexpr const char* kClearRubbish = "TileImageInterprocessRubbishCleaner::clearRubbish";

void remove(const std::wstring& file) {
  std::error_code ignored;
  std::filesystem::remove(platform::filesystemPath(file), ignored);
}

void logTrace(const char* format) { base::logger().log(ember_logger::trace, format, kClearRubbish); }

}  // namespace

std::shared_ptr<TileImageInterprocessRubbishCleaner> TileImageInterprocessRubbishCleaner::instance() {
  using Shared = std::shared_ptr<TileImageInterprocessRubbishCleaner>;
  static const Shared& cleaner =
      *new Shared(std::make_shared<TileImageInterprocessRubbishCleaner>(SharedImageFiles::ofUser()));
  return cleaner;
}

void TileImageInterprocessRubbishCleaner::clearRubbish() {
  {
    const std::lock_guard lock(cleanerMutex_);
    if (hasCleared_) {
      return;
    }
    hasCleared_ = true;
    logTrace("[%s] clear rubbish");
  }
  try {
    cleanerFileStream_ = platform::openLockFile(files_.cleanersLockFile());
    logTrace(cleanerFileStream_ == nullptr ? "[%s] not clear cache!" : "[%s] need to clear cache!");
    if (cleanerFileStream_ != nullptr) {
      for (const std::wstring& identifier : files_.identifiersWithLockFile()) {
        removeAbandoned(identifier);
      }
      platform::removeUnfinishedTexts(files_.descriptorFolder());
    }
  } catch (const std::exception&) {  // no memory: what is left is for the next process
  }
}

void TileImageInterprocessRubbishCleaner::removeAbandoned(const std::wstring& identifier) const {
  const std::wstring descriptor = files_.descriptor(identifier);
  const bool removed = platform::removeUnlessInUse(files_.lockFile(identifier), [&descriptor] { remove(descriptor); });
  base::logger().log(ember_logger::trace,
                     removed ? "[%s] InterprocessIdJsonFilePath:%s is not used, remove it!"
                             : "[%s] InterprocessIdJsonFilePath:%s is being used!",
                     kClearRubbish, platform::shownUtf8(descriptor).c_str());
}

}  // namespace interprocess
