// The tile grid of one image and the storage behind it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/tile.h"
#include "core/tile_grid.h"
#include "storage/block_center.h"

namespace interprocess {
struct InterprocessTileImageInfo;
}

namespace core {

class TileImage;

class TileManager {
 public:
  // Divides `owner`, which outlives the manager, into tiles and allocates them: in heap memory if the process's budget
  // has room for the image and `bForceUseFileMapping` is false, else in files. Empty, with a logged reason, on failure.
  static std::shared_ptr<TileManager> createNormal(const TileImage& owner, bool bForceUseFileMapping);

  // The same in files that other processes can attach to as `identifier`; `info` then tells of the image and the files.
  static std::shared_ptr<TileManager> createInterprocessA(const TileImage& owner,
                                                          interprocess::InterprocessTileImageInfo& info,
                                                          const std::wstring& identifier);

  // Takes the tiles that `info` tells of. Empty, with a logged reason, if they are none of `owner`'s or not there.
  static std::shared_ptr<TileManager> createInterprocessB(const TileImage& owner,
                                                          const interprocess::InterprocessTileImageInfo& info,
                                                          const std::wstring& identifier);

  explicit TileManager(const TileImage& owner) : owner_(owner) {}
  ~TileManager();
  TileManager(const TileManager&) = delete;
  TileManager& operator=(const TileManager&) = delete;

  // Announces to the storage that the calling thread is about to read (or, with `bWrite`, write) the pixel columns
  // [x1, x2) and rows [y1, y2). False, with a logged reason, if the rectangle is empty or a tile cannot be had.
  bool adjustCache(std::uint32_t x1, std::uint32_t x2, std::uint32_t y1, std::uint32_t y2, bool bWrite);

  // The calling thread begins, or is done with, a batch of accesses; see BlockCenter::IStorageStrategy.
  void beginCurrentThreadIO() { blockCenter_->storage().beginCurrentThreadIO(); }
  void endCurrentThreadIO() { blockCenter_->storage().endCurrentThreadIO(); }

  const TileGrid& grid() const { return *grid_; }

  // The tile at (row, column) of the grid; null if there is none.
  const Tile* tile(std::uint64_t row, std::uint64_t column) const {
    const bool inside = row < grid_->tileRowCount() && column < grid_->tileColCount();
    return inside ? tiles_[row * grid_->tileColCount() + column].get() : nullptr;
  }

 private:
  bool postInitializeNormal(bool bForceUseFileMapping);
  bool postInitializeInterprocessA(interprocess::InterprocessTileImageInfo& info, const std::wstring& identifier);
  bool postInitializeInterprocessB(const interprocess::InterprocessTileImageInfo& info, const std::wstring& identifier);
  template <class CreateBlockCenter>
  bool createTiles(const char* function, CreateBlockCenter create);
  static bool fitsHeapBudget(std::uint64_t fuzzyTotalBytes);
  void calculate_UseFileMapping();
  bool initTiles();
  void logGrid() const;

  const TileImage& owner_;
  std::optional<TileGrid> grid_;
  std::shared_ptr<storage::BlockCenter> blockCenter_;
  std::vector<std::unique_ptr<Tile>> tiles_;  // row by row
  bool useMemory_ = true;
  std::uint64_t sumBytes_ = 0;  // of all tiles
  bool counted_ = false;        // sumBytes_ stands in the process's heap budget
};

}  // namespace core
