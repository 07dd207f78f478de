#include "storage/file_mapping_storage_strategy.h"

#include <algorithm>
#include <array>
#include <exception>
#include <filesystem>
#include <string>

#include "base/log.h"
#include "interprocess/holders.h"
#include "interprocess/interprocess_release_resource_ownership.h"
#include "interprocess/interprocess_tile_image_info.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "platform/processes.h"
#include "platform/utf8.h"

namespace storage {
namespace {

constexpr const char* kDestructor = "FileMappingStorageStrategy::~FileMappingStorageStrategy";

// Calls `visit` with the row and column of each tile of `area` that is not in `kept`, rows outer, until it returns
// false; whether it never did.
template <class Visit>
bool forEachTile(const TileArea& area, const TileArea& kept, Visit visit) {
  for (std::uint64_t row = area.firstRow; row < area.endRow; ++row) {
    for (std::uint64_t column = area.firstColumn; column < area.endColumn; ++column) {
      if (!kept.contains(row, column) && !visit(row, column)) {
        return false;
      }
    }
  }
  return true;
}

}  // namespace

FileMappingStorageStrategy::FileMappingStorageStrategy()
    : threadIdOfConstructor_(platform::currentThreadId()), processIdOfConstructor_(platform::currentProcessId()) {}

FileMappingStorageStrategy::~FileMappingStorageStrategy() {
  const std::uint32_t threadIdOfDestructor = platform::currentThreadId();
  if (threadIdOfDestructor != threadIdOfConstructor_) {
    base::logger().log(ember_logger::warning,
                       "[%s] threadIdOfConstructor: %d, threadIdOfDestructor: %d . not in same thread,this possibly "
                       "cause thread unsafe.",
                       kDestructor, static_cast<int>(threadIdOfConstructor_), static_cast<int>(threadIdOfDestructor));
  }
  if (flusher_ != nullptr) {
    flusher_->stop();
    flusher_.reset();
  }
  blocks_.clear();
  if (mayRemoveFiles()) {
    removeFiles();
  }
}

// Files of a shared image are the last holder's, unless no descriptor has told anyone of them yet. A strategy that
// could not become a holder takes the files along unless someone else is one; the descriptor is left then.
bool FileMappingStorageStrategy::mayRemoveFiles() {
  if (sharedFiles_ == nullptr) {
    return true;
  }
  if (ownership_ == nullptr) {
    return !sharedFiles_->described || interprocess::claimUnlessHeld(lockFilePath_).has_value();
  }
  ownership_.reset();
  if (*hasOwnership_) {
    removeDescriptor();
  }
  return *hasOwnership_ || !sharedFiles_->described;
}

void FileMappingStorageStrategy::removeDescriptor() noexcept {
  try {
    std::error_code ignored;
    const bool removed = std::filesystem::remove(platform::filesystemPath(interprocessIdJsonFilePath_), ignored);
    base::logger().log(ember_logger::info, "[%s] has Ownership. interprocessIdJsonFilePath remove success:%d [%s]",
                       kDestructor, removed ? 1 : 0, platform::shownUtf8(interprocessIdJsonFilePath_).c_str());
  } catch (const std::exception&) {  // no memory: the next image of that name replaces it
  }
}

// A forked process that ends must not take its parent's files along. Needs no memory: images are released for want of
// it.
void FileMappingStorageStrategy::removeFiles() noexcept {
  const bool ours = platform::currentProcessId() == processIdOfConstructor_;
  for (auto& file : files_) {
    file.mapping.reset();
    if (ours && !platform::removeFile(file.narrowPath)) {
      base::logger().log(ember_logger::warning, "[%s] %s cannot be removed; a later start of this program will",
                         kDestructor, file.narrowPath.c_str());
    }
  }
}

bool FileMappingStorageStrategy::updateCache(const TileArea& area, bool write) {
  if (area.empty()) {
    base::logger().log(ember_logger::error, "[%s] area is empty,check your code!",
                       "FileMappingStorageStrategy::updateCache");
  }
  TileArea before;
  threadData_->updateArea(area, before);
  if (before == area) {
    return true;
  }
  const TileArea kept = overlap(before, area);
  letGo(before, kept);
  if (use(area, kept, write)) {
    return true;
  }
  // All or nothing: a thread whose area has tiles that it does not hold would let go of them later, under the threads
  // that do.
  letGo(kept, {});
  threadData_->clearArea(before);
  return false;
}

void FileMappingStorageStrategy::endCurrentThreadIO() {
  TileArea before;
  threadData_->clearArea(before);
  letGo(before, {});
  threadData_->check();
}

FileMappingBlock& FileMappingStorageStrategy::fileBlock(std::uint64_t row, std::uint64_t column) const {
  return static_cast<FileMappingBlock&>(*blocks_[row][column]);
}

void FileMappingStorageStrategy::letGo(const TileArea& area, const TileArea& kept) const {
  forEachTile(area, kept, [&](std::uint64_t row, std::uint64_t column) {
    fileBlock(row, column).tryFlushAndResetMappedRegion();
    return true;
  });
}

// If a tile cannot be mapped, those before it are let go again.
bool FileMappingStorageStrategy::use(const TileArea& area, const TileArea& kept, bool write) const {
  const FileMappingBlock* failed = nullptr;
  const bool all = forEachTile(area, kept, [&](std::uint64_t row, std::uint64_t column) {
    FileMappingBlock& block = fileBlock(row, column);
    failed = block.ensureValidAndUse(write) ? nullptr : &block;
    return failed == nullptr;
  });
  if (!all) {
    forEachTile(area, kept, [&](std::uint64_t row, std::uint64_t column) {
      FileMappingBlock& block = fileBlock(row, column);
      return &block != failed && (block.tryFlushAndResetMappedRegion(), true);
    });
  }
  return all;
}

std::shared_ptr<SyncFlusher> SyncFlusher::create() {
  base::logger().log(ember_logger::trace, "[%s] use SyncFlush", "SyncFlusher::create");
  return std::make_shared<SyncFlusher>();
}

bool SyncFlusher::leavesToSystem(std::uint64_t rowIndex, std::uint64_t colIndex) {
  constexpr std::array<std::uint64_t, 7> kDivisors{4, 7, 11, 13, 17, 19, 23};
  const auto isMultiple = [&](std::uint64_t index) {
    return std::any_of(kDivisors.begin(), kDivisors.end(), [&](std::uint64_t divisor) { return index % divisor == 0; });
  };
  return isMultiple(rowIndex) && isMultiple(colIndex);
}

void SyncFlusher::flush(std::shared_ptr<win_interprocess::mapped_region> region, std::uint64_t rowIndex,
                        std::uint64_t colIndex) {
  if (!leavesToSystem(rowIndex, colIndex) && region->address() != nullptr && region->size() != 0) {
    region->flush();
  }
}

}  // namespace storage
