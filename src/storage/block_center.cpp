#include "storage/block_center.h"

#include "base/log.h"
#include "base/process_values.h"
#include "storage/clean_up.h"
#include "storage/file_mapping_storage_strategy.h"
#include "storage/memory_storage_strategy.h"

namespace storage {
namespace {

std::shared_ptr<MemoryStorageStrategy> createInMemory(const TileByteSizes& tileByteSizes) {
  const std::uint64_t available = base::totalMemoryBytes();
  if (tileByteSizes.total() > available) {
    // The system would hand it out all the same, tile by tile, and end the process when the tiles are written.
    base::logger().log(ember_logger::error, "[%s] the tiles take %llu bytes, more than the machine's %llu bytes",
                       "BlockCenter::create", base::ull{tileByteSizes.total()}, base::ull{available});
    return nullptr;
  }
  return MemoryStorageStrategy::create(tileByteSizes);
}

}  // namespace

std::shared_ptr<BlockCenter> BlockCenter::create(const TileByteSizes& tileByteSizes, bool useMemory) {
  cleanUpOnce();
  std::shared_ptr<IStorageStrategy> storage;
  if (useMemory) {
    storage = createInMemory(tileByteSizes);
  } else {
    storage = FileMappingStorageStrategy::createNormal(tileByteSizes);
  }
  return storage == nullptr ? nullptr : std::make_shared<BlockCenter>(std::move(storage));
}

}  // namespace storage
