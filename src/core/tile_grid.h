// How an image is divided into tiles.
#pragma once

#include <cstdint>
#include <optional>

#include "core/pixel_format.h"
#include "storage/tile_area.h"
#include "storage/tile_byte_sizes.h"

namespace core {

// The shape of one tile, in pixels.
struct TileGeometry {
  std::uint64_t allocatedWidth = 0;  // a multiple of 8: tile rows of packed samples start on whole bytes
  std::uint64_t height = 0;
  // Pixels of the image in a tile of the last column. Elsewhere what filling the grid row by row leaves behind: 0 in
  // the first tile row, the last column's value below it.
  std::uint64_t lastColumnValidWidth = 0;
};

// A grid as another process tells of it.
struct TileGridDescription {
  std::uint64_t tileBaseWidth = 0;
  std::uint64_t tileBaseHeight = 0;
  std::uint64_t tileRowCount = 0;
  std::uint64_t tileColCount = 0;
};

// A grid of tiles of one base size, smaller in the last row and the last column where the image ends earlier.
class TileGrid {
 public:
  // Small tiles for an image in heap memory. Nothing if the bits of the image do not fit 64 bits.
  static std::optional<TileGrid> forMemory(const PixelFormat& format, std::uint32_t width, std::uint32_t height);

  // Large tiles, shaped after the access pattern and the image's aspect ratio, of whole `granularity` bytes each.
  // Nothing for a pattern that is none of the KVTI_SCANLINE_OPERATION_... values either.
  static std::optional<TileGrid> forFileMapping(const PixelFormat& format, std::uint32_t width, std::uint32_t height,
                                                std::uint32_t scanlineOperation, std::uint64_t granularity);

  // The grid of an image in files that another process has made. Nothing if the description fits no image of this
  // format and size, or has more tiles than any image that fits a disk.
  static std::optional<TileGrid> described(const PixelFormat& format, std::uint32_t width, std::uint32_t height,
                                           const TileGridDescription& description, std::uint64_t granularity);

  // Pixels of every tile outside the last column and the last row.
  std::uint64_t tileBaseWidth() const { return tileBaseWidth_; }
  std::uint64_t tileBaseHeight() const { return tileBaseHeight_; }

  std::uint64_t tileRowCount() const { return tileRowCount_; }
  std::uint64_t tileColCount() const { return tileColCount_; }

  // The shape of the tile at (row, column), both inside the grid.
  TileGeometry geometry(std::uint64_t row, std::uint64_t column) const;

  const storage::TileByteSizes& byteSizes() const { return byteSizes_; }

  // The tiles that the pixel rectangle of columns [x1, x2) and rows [y1, y2) touches.
  storage::TileArea tilesCovering(std::uint32_t x1, std::uint32_t x2, std::uint32_t y1, std::uint32_t y2) const;

 private:
  struct BaseSize {
    std::uint64_t width = 0;
    std::uint64_t height = 0;
  };

  TileGrid(const PixelFormat& format, std::uint32_t width, std::uint32_t height, BaseSize base,
           std::uint64_t granularity);

  static BaseSize fileMappingBaseSize(std::uint32_t width, std::uint32_t height, std::uint32_t scanlineOperation);

  std::uint64_t tileBaseWidth_;
  std::uint64_t tileBaseHeight_;
  std::uint64_t tileRowCount_;
  std::uint64_t tileColCount_;
  std::uint64_t lastColumnValidWidth_;
  std::uint64_t lastRowHeight_;
  storage::TileByteSizes byteSizes_;
};

}  // namespace core
