#include "storage/memory_storage_strategy.h"

#include <exception>
#include <limits>

#include "base/log.h"

namespace storage {

std::shared_ptr<MemoryBlock> MemoryBlock::create(std::uint64_t size) {
  Buffer buffer;
  if (size <= std::numeric_limits<std::size_t>::max() / 2) {
    // calloc hands out fresh pages, which are zero already, without touching them; a fill would touch them all.
    buffer.reset(static_cast<std::uint8_t*>(std::calloc(size, 1)));
  }
  if (buffer == nullptr) {
    base::logger().log(ember_logger::error, "[%s] create failed", "MemoryBlock::create");
    return nullptr;
  }
  return std::shared_ptr<MemoryBlock>(new MemoryBlock(size, std::move(buffer)));
}

std::shared_ptr<MemoryStorageStrategy> MemoryStorageStrategy::create(const TileByteSizes& tileByteSizes) {
  auto strategy = std::make_shared<MemoryStorageStrategy>();
  if (!strategy->postInitialize(tileByteSizes)) {
    base::logger().log(ember_logger::error, "[%s] create failed", "MemoryStorageStrategy::create");
    return nullptr;
  }
  return strategy;
}

bool MemoryStorageStrategy::postInitialize(const TileByteSizes& tileByteSizes) {
  try {
    return createBlocks(tileByteSizes);
  } catch (const std::exception& exception) {
    base::logger().log(ember_logger::error, "[%s] postInitialize failed [reason: exception - %s]",
                       "MemoryStorageStrategy::postInitialize", exception.what());
    return false;
  }
}

bool MemoryStorageStrategy::createBlocks(const TileByteSizes& tileByteSizes) {
  blocks_.resize(tileByteSizes.rows);
  for (std::uint64_t row = 0; row < tileByteSizes.rows; ++row) {
    blocks_[row].resize(tileByteSizes.columns);
    for (std::uint64_t column = 0; column < tileByteSizes.columns; ++column) {
      blocks_[row][column] = MemoryBlock::create(tileByteSizes.at(row, column));
      if (blocks_[row][column] == nullptr) {
        base::logger().log(ember_logger::error, "[%s] MemoryBlock create failed",
                           "MemoryStorageStrategy::postInitialize");
        return false;
      }
    }
  }
  return true;
}

}  // namespace storage
