#include "storage/clean_up.h"

#include <atomic>
#include <exception>

#include "base/log.h"
#include "interprocess/holders.h"
#include "interprocess/tile_image_interprocess_rubbish_cleaner.h"

namespace storage {
namespace {

// An image in heap memory does not fail because no cache folder can be had; one that needs a folder finds out itself.
void cleanCacheFolders() {
  static std::atomic<bool> failed{false};
  if (failed) {
    return;
  }
  try {
    cacheFolders()->clearRubbish();
  } catch (const std::exception& exception) {
    failed = true;
    base::logger().log(ember_logger::warning, "[%s] there is no cache folder: %s", "BlockCenter::create",
                       exception.what());
  }
}

}  // namespace

std::shared_ptr<cache::FileMappingDirHelper> cacheFolders() {
  return cache::FileMappingDirHelper::instance(&interprocess::Holders::find);
}

void cleanUpOnce() {
  cleanCacheFolders();
  interprocess::TileImageInterprocessRubbishCleaner::instance()->clearRubbish();
}

}  // namespace storage
