#include "storage/file_mapping_storage_strategy.h"

#include <algorithm>
#include <array>
#include <exception>
#include <new>
#include <optional>
#include <string>

#include "base/log.h"
#include "base/process_values.h"
#include "cache/file_mapping_dir_helper.h"
#include "cache/file_mapping_file_path_helper.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "platform/processes.h"
#include "platform/utf8.h"
#include "platform/volumes.h"

namespace storage {
namespace {

using base::ull;
using cache::FileMappingDirHelper;
using cache::FileMappingFilePathHelper;
using platform::shownUtf8;

constexpr const char* kPostInitializeCommon = "FileMappingStorageStrategy::postInitializeCommon";
constexpr const char* kPostInitialize = "FileMappingStorageStrategy::postInitializeInterprocessA";

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

// A single folder is taken as it is, so that its disk has to be looked at before anything is made: it would be full
// before a file failed. Of several folders each file finds one with room to spare. Where the system does not tell,
// making the files will.
bool roomFor(std::uint64_t bytes, const FileMappingDirHelper& folders) {
  if (folders.rootDirList().size() != 1) {
    return true;
  }
  const std::wstring& folder = folders.rootDirList().front();
  const auto available = platform::freeBytes(folder);
  if (!available || bytes <= *available) {
    return true;
  }
  base::logger().log(ember_logger::error,
                     "[%s] the files of the image take %llu bytes, but %s has %llu bytes free: make room, or name a "
                     "folder on a larger disk under \"rootDirList\" in %s",
                     kPostInitialize, ull{bytes}, shownUtf8(folder).c_str(), ull{*available},
                     shownUtf8(folders.host().configurationFile()).c_str());
  return false;
}

}  // namespace

FileMappingStorageStrategy::FileMappingStorageStrategy()
    : threadIdOfConstructor_(platform::currentThreadId()), processIdOfConstructor_(platform::currentProcessId()) {}

std::shared_ptr<FileMappingStorageStrategy> FileMappingStorageStrategy::createNormal(
    const TileByteSizes& tileByteSizes) {
  auto strategy = std::make_shared<FileMappingStorageStrategy>();
  if (!strategy->postInitializeInterprocessA(tileByteSizes)) {
    base::logger().log(ember_logger::error, "[%s] create failed", "FileMappingStorageStrategy::createNormal");
    return nullptr;
  }
  return strategy;
}

bool FileMappingStorageStrategy::postInitializeCommon(const TileByteSizes& tileByteSizes) {
  if (FileMappingDirHelper::instance()->rootDirList().empty()) {
    base::logger().log(ember_logger::error, "[%s] FileMappingDirHelper instance is invalid", kPostInitializeCommon);
    return false;
  }
  if (tileByteSizes.rows == 0 || tileByteSizes.columns == 0) {
    base::logger().log(ember_logger::error, "[%s] code error, check your code", kPostInitializeCommon);
    return false;
  }
  flusher_ = SyncFlusher::create();
  flusher_->start();
  threadData_ = std::make_shared<FileMappingThreadData>(std::make_shared<std::atomic<bool>>(true));
  return true;
}

bool FileMappingStorageStrategy::postInitializeInterprocessA(const TileByteSizes& tileByteSizes) {
  try {
    return postInitializeCommon(tileByteSizes) &&
           createFilesAndBlocks(tileByteSizes, *FileMappingDirHelper::instance());
  } catch (const std::exception& exception) {
    base::logger().log(ember_logger::error, "[%s] postInitialize failed [reason: exception %s]", kPostInitialize,
                       exception.what());
    return false;
  }
}

bool FileMappingStorageStrategy::createFilesAndBlocks(const TileByteSizes& tileByteSizes,
                                                      const FileMappingDirHelper& folders) {
  if (!roomFor(tileByteSizes.total(), folders)) {
    return false;
  }
  files_.reserve(tileByteSizes.rows * tileByteSizes.columns);
  blocks_.resize(tileByteSizes.rows);
  for (std::uint64_t row = 0; row < tileByteSizes.rows; ++row) {
    blocks_[row].resize(tileByteSizes.columns);
    for (std::uint64_t column = 0; column < tileByteSizes.columns; ++column) {
      const std::uint64_t bytes = tileByteSizes.at(row, column);
      if (!createFile(folders, bytes)) {
        return false;
      }
      try {
        blocks_[row][column] = std::make_shared<FileMappingBlock>(bytes, *this, row, column, files_.size() - 1);
      } catch (const std::bad_alloc&) {
        base::logger().log(ember_logger::error, "[%s] postInitialize failed [reason: block create failed]",
                           kPostInitialize);
        return false;
      }
    }
  }
  return true;
}

bool FileMappingStorageStrategy::createFile(const FileMappingDirHelper& folders, std::uint64_t bytes) {
  const auto fail = [](const char* format) {
    base::logger().log(ember_logger::error, format, kPostInitialize);
    return false;
  };
  if (bytes % base::allocationGranularity() != 0) {
    return fail("[%s] fileBytes is not a multiple of pageSize, check your code");
  }
  const std::wstring folder = folders.rootDir(folders.getSuitableRootDirIndex(bytes));
  if (folder.empty()) {
    return fail("[%s] obtain a suitable dir failed");
  }
  std::wstring path;
  std::string narrowPath;
  std::error_code error;
  do {
    const auto info = FileMappingFilePathHelper::getUniqueFileInfo(folder);
    if (!info) {
      return fail("[%s] FileMappingFilePathHelper::getUniqueFileInfo failed");
    }
    path = info->path;
    narrowPath = platform::narrowPath(path);
    error = platform::createZeroFile(narrowPath, bytes);
    // A process that had this one's id may have left its file, or have it in use still, in another container.
  } while (error == std::errc::file_exists);
  if (error) {
    base::logger().log(ember_logger::error, "[%s] %s of %llu bytes cannot be made: %s", kPostInitialize,
                       shownUtf8(path).c_str(), ull{bytes}, error.message().c_str());
    return fail("[%s] postInitialize failed [reason: createFile failed]");
  }
  files_.push_back({std::move(narrowPath), nullptr});
  files_.back().mapping =
      std::make_shared<win_interprocess::file_mapping>(files_.back().narrowPath, win_interprocess::kReadWrite);
  return true;
}

FileMappingStorageStrategy::~FileMappingStorageStrategy() {
  const std::uint32_t threadIdOfDestructor = platform::currentThreadId();
  if (threadIdOfDestructor != threadIdOfConstructor_) {
    base::logger().log(ember_logger::warning,
                       "[%s] threadIdOfConstructor: %d, threadIdOfDestructor: %d . not in same thread,this possibly "
                       "cause thread unsafe.",
                       "FileMappingStorageStrategy::~FileMappingStorageStrategy",
                       static_cast<int>(threadIdOfConstructor_), static_cast<int>(threadIdOfDestructor));
  }
  if (flusher_ != nullptr) {
    flusher_->stop();
    flusher_.reset();
  }
  blocks_.clear();
  removeFiles();
}

// A forked process that ends must not take its parent's files along. Needs no memory: images are released for want of
// it.
void FileMappingStorageStrategy::removeFiles() noexcept {
  const bool ours = platform::currentProcessId() == processIdOfConstructor_;
  for (auto& file : files_) {
    file.mapping.reset();
    if (ours && !platform::removeFile(file.narrowPath)) {
      base::logger().log(ember_logger::warning, "[%s] %s cannot be removed; a later start of this program will",
                         "FileMappingStorageStrategy::~FileMappingStorageStrategy", file.narrowPath.c_str());
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
