// The storage back end of one image.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "storage/block.h"
#include "storage/tile_area.h"
#include "storage/tile_byte_sizes.h"

namespace storage {

class BlockCenter {
 public:
  // Where the blocks of an image live; one block per tile, in a grid of the tile grid's shape.
  class IStorageStrategy {
   public:
    IStorageStrategy() = default;
    IStorageStrategy(const IStorageStrategy&) = delete;
    IStorageStrategy& operator=(const IStorageStrategy&) = delete;
    virtual ~IStorageStrategy() = default;

    // The calling thread is about to make a batch of accesses.
    virtual void beginCurrentThreadIO() = 0;

    // The calling thread is done: what only it still held may be let go.
    virtual void endCurrentThreadIO() = 0;

    // Announces that the calling thread accesses the tiles of `area` next, for writing if `write`: makes their blocks
    // loadable and may let go of blocks that this thread used before. Comes before every row or column access. False,
    // with a logged reason, if a block cannot be made loadable; the thread must not access any of them then.
    virtual bool updateCache(const TileArea& area, bool write) = 0;

    // The block of the tile at (row, column), both inside the grid.
    const std::shared_ptr<Block>& block(std::uint64_t row, std::uint64_t column) const { return blocks_[row][column]; }

   protected:
    std::vector<std::vector<std::shared_ptr<Block>>> blocks_;  // [tile row][tile column]
  };

  // Makes the storage for tiles of the given sizes, in heap memory or in files. Null, with a logged reason, if it
  // cannot be had; more heap memory than the machine has, swap space included, is refused at once. The first call in a
  // process removes what dead processes of its program left on the disks.
  static std::shared_ptr<BlockCenter> create(const TileByteSizes& tileByteSizes, bool useMemory);

  explicit BlockCenter(std::shared_ptr<IStorageStrategy> storage) : storage_(std::move(storage)) {}

  IStorageStrategy& storage() const { return *storage_; }

 private:
  std::shared_ptr<IStorageStrategy> storage_;
};

}  // namespace storage
