#include "core/tile_manager.h"

#include <exception>
#include <limits>

#include "base/log.h"
#include "base/process_values.h"
#include "core/tile_image.h"
#include "interprocess/interprocess_tile_image_info.h"
#include "kvtileimage/KvTileImage.h"
#include "storage/file_mapping_storage_strategy.h"
#include "storage/tile_image_memory_byte_counter.h"

namespace core {
namespace {

using base::fail;
using base::ull;
using interprocess::InterprocessTileImageInfo;
using storage::FileMappingStorageStrategy;
using storage::TileImageMemoryByteCounter;

constexpr const char* kPostInitializeNormal = "TileManager::postInitializeNormal";
constexpr const char* kPostInitializeA = "TileManager::postInitializeInterprocessA";
constexpr const char* kPostInitializeB = "TileManager::postInitializeInterprocessB";

bool refuseWithoutGrid(const char* function) {
  return fail("[%s] no tile grid: the image's bits must fit 64 bits and its scanlineOperation be 1, 2 or 3", function);
}

}  // namespace

std::shared_ptr<TileManager> TileManager::createNormal(const TileImage& owner, bool bForceUseFileMapping) {
  auto manager = std::make_shared<TileManager>(owner);
  if (!manager->postInitializeNormal(bForceUseFileMapping)) {
    fail("[%s] postInitialize failed", "TileManager::createNormal");
    return nullptr;
  }
  return manager;
}

std::shared_ptr<TileManager> TileManager::createInterprocessA(const TileImage& owner, InterprocessTileImageInfo& info,
                                                              const std::wstring& identifier) {
  auto manager = std::make_shared<TileManager>(owner);
  if (!manager->postInitializeInterprocessA(info, identifier)) {
    fail("[%s] postInitialize failed", "TileManager::createInterprocessA");
    return nullptr;
  }
  return manager;
}

std::shared_ptr<TileManager> TileManager::createInterprocessB(const TileImage& owner,
                                                              const InterprocessTileImageInfo& info,
                                                              const std::wstring& identifier) {
  auto manager = std::make_shared<TileManager>(owner);
  if (!manager->postInitializeInterprocessB(info, identifier)) {
    fail("[%s] postInitialize failed", "TileManager::createInterprocessB");
    return nullptr;
  }
  return manager;
}

TileManager::~TileManager() {
  if (counted_) {
    TileImageMemoryByteCounter::instance()->subtract(sumBytes_);
  }
}

bool TileManager::postInitializeNormal(bool bForceUseFileMapping) {
  // A count of bits, compared with limits in bytes below. Kept: which images stay in memory depends on it.
  const std::uint64_t fuzzyTotalBytes =
      std::uint64_t{owner_.format().bitsPerSample} * owner_.format().samplesPerPixel * owner_.height() * owner_.width();
  base::logger().log(ember_logger::trace, "[%s] fuzzyTotalBytes:%llu", kPostInitializeNormal, ull{fuzzyTotalBytes});
  useMemory_ = !bForceUseFileMapping && fitsHeapBudget(fuzzyTotalBytes);
  if (useMemory_) {
    base::logger().log(ember_logger::trace, "[%s] use memory", kPostInitializeNormal);
    grid_ = TileGrid::forMemory(owner_.format(), owner_.width(), owner_.height());
  } else {
    base::logger().log(ember_logger::trace, "[%s] use file mapping [bForceUseFileMapping:%d]", kPostInitializeNormal,
                       bForceUseFileMapping ? 1 : 0);
    calculate_UseFileMapping();
  }
  if (!grid_) {
    return refuseWithoutGrid(kPostInitializeNormal);
  }
  if (!createTiles(kPostInitializeNormal,
                   [this] { return storage::BlockCenter::create(grid_->byteSizes(), useMemory_); })) {
    return false;
  }
  base::logger().log(ember_logger::trace, "[%s] sumBytes_:%llu", kPostInitializeNormal, ull{sumBytes_});
  if (useMemory_) {
    TileImageMemoryByteCounter::instance()->add(sumBytes_);
    counted_ = true;
  }
  logGrid();
  return true;
}

bool TileManager::postInitializeInterprocessA(InterprocessTileImageInfo& info, const std::wstring& identifier) {
  base::logger().log(ember_logger::trace, "[%s] use file mapping", kPostInitializeA);
  useMemory_ = false;
  calculate_UseFileMapping();
  if (!grid_) {
    return refuseWithoutGrid(kPostInitializeA);
  }
  info.width = owner_.width();
  info.height = owner_.height();
  info.samplesPerPixel = owner_.format().samplesPerPixel;
  info.bitsPerSample = owner_.format().bitsPerSample;
  info.sampleformat = static_cast<std::int32_t>(owner_.sampleformat());
  // Kept: scanlineOperation stays at its default, whatever the image was made for; who attaches gets both directions.
  info.tileBaseWidth = grid_->tileBaseWidth();
  info.tileBaseHeight = grid_->tileBaseHeight();
  info.tileRowCount = grid_->tileRowCount();
  info.tileColCount = grid_->tileColCount();
  return createTiles(kPostInitializeA, [&] {
    return FileMappingStorageStrategy::createInterprocessA(grid_->byteSizes(), info.interprocessFileMappingInfo,
                                                           identifier);
  });
}

bool TileManager::postInitializeInterprocessB(const InterprocessTileImageInfo& info, const std::wstring& identifier) {
  base::logger().log(ember_logger::trace, "[%s] use file mapping", kPostInitializeB);
  useMemory_ = false;
  grid_ = TileGrid::described(owner_.format(), owner_.width(), owner_.height(),
                              {info.tileBaseWidth, info.tileBaseHeight, info.tileRowCount, info.tileColCount},
                              base::allocationGranularity());
  if (!grid_) {
    base::logger().log(ember_logger::error,
                       "[%s] the descriptor's %llu x %llu tiles of %llu x %llu pixels are no grid of its image",
                       kPostInitializeB, ull{info.tileColCount}, ull{info.tileRowCount}, ull{info.tileBaseWidth},
                       ull{info.tileBaseHeight});
    return false;
  }
  return createTiles(kPostInitializeB, [&] {
    return FileMappingStorageStrategy::createInterprocessB(grid_->byteSizes(), info.interprocessFileMappingInfo,
                                                           identifier);
  });
}

bool TileManager::fitsHeapBudget(std::uint64_t fuzzyTotalBytes) {
  const auto counter = TileImageMemoryByteCounter::instance();
  const std::uint64_t budget = counter->maxBytes();
  const std::uint64_t used = counter->usedBytes();
  if (fuzzyTotalBytes <= TileImageMemoryByteCounter::kSmallImageThreshold) {
    // A budget whose double overflows is no limit.
    return budget > std::numeric_limits<std::uint64_t>::max() / 2 || used < 2 * budget;
  }
  return used < budget && fuzzyTotalBytes < budget - used;
}

void TileManager::calculate_UseFileMapping() {
  const std::uint32_t operation = owner_.scanlineOperation();
  const char* name = nullptr;
  if (operation == KVTI_SCANLINE_OPERATION_ROW) {
    name = "ROW";
  } else if (operation == KVTI_SCANLINE_OPERATION_COL) {
    name = "COL";
  } else if (operation == KVTI_SCANLINE_OPERATION_ROWCOL) {
    name = "ROWCOL";
  }
  if (name != nullptr) {
    base::logger().log(ember_logger::trace, "[%s] KVTI_SCANLINE_OPERATION_%s", "TileManager::calculate_UseFileMapping",
                       name);
  }
  grid_ = TileGrid::forFileMapping(owner_.format(), owner_.width(), owner_.height(), operation,
                                   base::allocationGranularity());
}

template <class CreateBlockCenter>
bool TileManager::createTiles(const char* function, CreateBlockCenter create) {
  try {
    blockCenter_ = create();
  } catch (const std::exception&) {  // no memory: an empty reference, reported as such
  }
  if (blockCenter_ == nullptr) {
    return fail("[%s] blockCenter_ create failed", function);
  }
  return initTiles() || fail("[%s] init tiles failed", function);
}

bool TileManager::initTiles() {
  try {
    tiles_.reserve(grid_->tileRowCount() * grid_->tileColCount());
    for (std::uint64_t row = 0; row < grid_->tileRowCount(); ++row) {
      for (std::uint64_t column = 0; column < grid_->tileColCount(); ++column) {
        tiles_.push_back(
            std::make_unique<Tile>(owner_, blockCenter_->storage().block(row, column), grid_->geometry(row, column)));
        sumBytes_ += grid_->byteSizes().at(row, column);
      }
    }
  } catch (const std::exception&) {
    base::logger().log(ember_logger::error, "[%s] create failed", "Tile::create");
    base::logger().log(ember_logger::error, "[%s] tile create failed", "TileManager::initTiles");
    return false;
  }
  return true;
}

bool TileManager::adjustCache(std::uint32_t x1, std::uint32_t x2, std::uint32_t y1, std::uint32_t y2, bool bWrite) {
  if (x1 >= x2 || y1 >= y2) {
    base::logger().log(ember_logger::error, "[%s] check your code", "TileManager::adjustCache");
    return false;
  }
  return blockCenter_->storage().updateCache(grid_->tilesCovering(x1, x2, y1, y2), bWrite);
}

void TileManager::logGrid() const {
  auto& logger = base::logger();
  logger.log(ember_logger::trace,
             "[%s] width:%llu height:%llu tileBaseWidth:%llu tileBaseHeight:%llu tileRowCount:%llu tileColCount:%llu ",
             kPostInitializeNormal, ull{owner_.width()}, ull{owner_.height()}, ull{grid_->tileBaseWidth()},
             ull{grid_->tileBaseHeight()}, ull{grid_->tileRowCount()}, ull{grid_->tileColCount()});
  const std::uint64_t lastRow = grid_->tileRowCount() - 1;
  const std::uint64_t lastColumn = grid_->tileColCount() - 1;
  const auto logCorner = [&](const char* rowName, const char* columnName, std::uint64_t row, std::uint64_t column) {
    const TileGeometry geometry = grid_->geometry(row, column);
    logger.log(ember_logger::trace, "[%s] [%s][%s]: tileWidth: %llu tileHeight: %llu bytes: %llu ",
               kPostInitializeNormal, rowName, columnName, ull{geometry.allocatedWidth}, ull{geometry.height},
               ull{grid_->byteSizes().at(row, column)});
  };
  logCorner("0", "0", 0, 0);
  logCorner("0", "last", 0, lastColumn);
  logCorner("last", "0", lastRow, 0);
  logCorner("last", "last", lastRow, lastColumn);
  logger.log(ember_logger::trace, "[%s] ****************************", kPostInitializeNormal);
}

}  // namespace core
