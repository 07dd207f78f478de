// One rectangle of an image's tile grid.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>

#include "core/pixel_format.h"
#include "core/tile_grid.h"
#include "platform/prefetch.h"
#include "storage/block.h"

namespace core {

// Which way a copy goes. A tile copies nothing for any other value, and reports success.
enum class Direction : std::uint32_t {
  get = 0,  // from the image into the buffer
  set = 1,  // from the buffer into the image
};

class TileImage;

// Copies runs of its rows and columns between its block and a caller's buffer. Takes no lock: threads may copy at the
// same time unless they write the same bytes.
class Tile {
 public:
  // `owner` outlives the tile and gives the pixel format.
  Tile(const TileImage& owner, std::shared_ptr<storage::Block> block, const TileGeometry& geometry);

  // Copies pixels [x1, x2) of tile row `rowInTile`. For packed formats `buffer` is the start of the caller's buffer and
  // the run begins `sampleOffset` samples into it; for whole-byte formats `buffer` starts at the run and `sampleOffset`
  // is not looked at. False, with a logged reason, if `bufferBytes` is too small or the block cannot be loaded.
  bool copyRowData(std::uint32_t rowInTile, std::uint32_t x1, std::uint32_t x2, std::uint8_t* buffer,
                   std::uint64_t bufferBytes, Direction direction, std::uint64_t sampleOffset) const;

  // Copies pixels [y1, y2) of tile column `colInTile`, as copyRowData does. Packed runs that BitTool::fillBits refuses
  // fail at the row it refuses; the rows before it have been copied.
  bool copyColData(std::uint32_t colInTile, std::uint32_t y1, std::uint32_t y2, std::uint8_t* buffer,
                   std::uint64_t bufferBytes, Direction direction, std::uint64_t sampleOffset) const;

  // Has the caches fetch the beginning of tile row `rowInTile`, where the block's bytes stay in one place: a copy that
  // comes soon then waits less for memory. The processor sees the rest of a longer row coming by itself.
  void prefetchRow(std::uint32_t rowInTile) const {
    constexpr std::uint64_t kBytesFetched = 1024;
    if (block_->residentBytes() != nullptr) {
      platform::prefetch(block_->residentBytes() + rowInTile * rowBytes_, std::min(rowBytes_, kBytesFetched));
    }
  }

  // Pixels that a row of the tile has room for.
  std::uint64_t tileWidth() const { return geometry_.allocatedWidth; }
  std::uint64_t tileHeight() const { return geometry_.height; }

 private:
  bool copyRowData_8multipleBitsPerSample(std::uint32_t rowInTile, std::uint32_t x1, std::uint32_t x2,
                                          std::uint8_t* buffer, std::uint64_t bufferBytes, Direction direction) const;
  bool copyColData_8multipleBitsPerSample(std::uint32_t colInTile, std::uint32_t y1, std::uint32_t y2,
                                          std::uint8_t* buffer, std::uint64_t bufferBytes, Direction direction) const;
  bool copyRowData_1_2_4BitsPerSample(std::uint32_t rowInTile, std::uint32_t x1, std::uint32_t x2, std::uint8_t* buffer,
                                      std::uint64_t bufferBytes, Direction direction, std::uint64_t sampleOffset) const;
  bool copyColData_1_2_4BitsPerSample(std::uint32_t colInTile, std::uint32_t y1, std::uint32_t y2, std::uint8_t* buffer,
                                      std::uint64_t bufferBytes, Direction direction, std::uint64_t sampleOffset) const;

  // A caller's buffer and the bit of it where a run begins.
  struct BitBuffer {
    std::uint8_t* bytes;
    std::uint64_t size;
    std::uint64_t bit;
  };

  // Copy tile rows [y1, y2) of the pixel at bit `tileBit` of each row of `data`. Pixels narrower than a byte move by
  // words; wider ones row by row, with the limits of BitTool::fillBits.
  bool copyNarrowColumn(std::uint8_t* data, std::uint64_t tileBit, std::uint32_t y1, std::uint32_t y2, BitBuffer buffer,
                        Direction direction) const;
  bool copyWideColumn(std::uint8_t* data, std::uint64_t tileBit, std::uint32_t y1, std::uint32_t y2, BitBuffer buffer,
                      Direction direction) const;

  const PixelFormat& format() const;

  const TileImage& owner_;
  std::shared_ptr<storage::Block> block_;
  TileGeometry geometry_;
  std::uint64_t rowBytes_;  // (bitsPerPixel * allocated width) / 8
};

}  // namespace core
