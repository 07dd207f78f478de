#include "core/tile_grid.h"

#include <array>
#include <limits>

#include "kvtileimage/KvTileImage.h"

namespace core {
namespace {

constexpr std::uint64_t kMemoryTileSide = 128;
constexpr std::uint64_t kWidthAlignment = 8;
constexpr std::uint64_t kUnalignedBytes = 1;

// Tiles in files are at least half a million pixels each, the last row and column aside. A description with more of
// them only asks for memory.
constexpr std::uint64_t kMostDescribedTiles = std::uint64_t{1} << 22;

constexpr std::uint64_t ceilDivide(std::uint64_t value, std::uint64_t divisor) {
  return value / divisor + (value % divisor != 0 ? 1 : 0);
}

constexpr std::uint64_t roundUp(std::uint64_t value, std::uint64_t multiple) {
  return ceilDivide(value, multiple) * multiple;
}

// What is left for the last of the tiles of `base` pixels that cover `size`.
constexpr std::uint64_t lastTileSize(std::uint64_t size, std::uint64_t base) {
  return size % base == 0 ? base : size % base;
}

// Samples of a packed format that share a byte; 1 for whole-byte formats.
std::uint64_t samplesPerByte(const PixelFormat& format) { return format.packed() ? 8 / format.bitsPerSample : 1; }

// Whether the bits of all tiles can be counted in 64 bits, the rounding up of widths included.
bool bitsFit(const PixelFormat& format, std::uint32_t width, std::uint32_t height) {
  std::uint64_t product = roundUp(width, kWidthAlignment);
  for (const std::uint64_t factor :
       {std::uint64_t{height}, std::uint64_t{format.samplesPerPixel}, std::uint64_t{format.bitsPerSample}}) {
    if (factor != 0 && product > std::numeric_limits<std::uint64_t>::max() / factor) {
      return false;
    }
    product *= factor;
  }
  return true;
}

}  // namespace

std::optional<TileGrid> TileGrid::forMemory(const PixelFormat& format, std::uint32_t width, std::uint32_t height) {
  if (!bitsFit(format, width, height)) {
    return std::nullopt;
  }
  // Only the width grows for packed samples: the height stays at 128 rows.
  const BaseSize base{kMemoryTileSide * samplesPerByte(format), kMemoryTileSide};
  return TileGrid(format, width, height, base, kUnalignedBytes);
}

std::optional<TileGrid> TileGrid::forFileMapping(const PixelFormat& format, std::uint32_t width, std::uint32_t height,
                                                 std::uint32_t scanlineOperation, std::uint64_t granularity) {
  BaseSize base = fileMappingBaseSize(width, height, scanlineOperation);
  if (base.width == 0 || granularity == 0 || !bitsFit(format, width, height)) {
    return std::nullopt;
  }
  base.width *= samplesPerByte(format);
  base.height *= samplesPerByte(format);
  return TileGrid(format, width, height, base, granularity);
}

std::optional<TileGrid> TileGrid::described(const PixelFormat& format, std::uint32_t width, std::uint32_t height,
                                            const TileGridDescription& description, std::uint64_t granularity) {
  const BaseSize base{description.tileBaseWidth, description.tileBaseHeight};
  constexpr std::uint64_t kLongest = std::numeric_limits<std::uint32_t>::max();
  const bool sizesFit = base.width > 0 && base.width <= kLongest && base.width % kWidthAlignment == 0 &&
                        base.height > 0 && base.height <= kLongest;
  if (!sizesFit || description.tileRowCount != ceilDivide(height, base.height) ||
      description.tileColCount != ceilDivide(width, base.width) ||
      description.tileRowCount * description.tileColCount > kMostDescribedTiles || granularity == 0 ||
      !bitsFit(format, width, height)) {
    return std::nullopt;
  }
  return TileGrid(format, width, height, base, granularity);
}

TileGrid::BaseSize TileGrid::fileMappingBaseSize(std::uint32_t width, std::uint32_t height,
                                                 std::uint32_t scanlineOperation) {
  if (scanlineOperation == KVTI_SCANLINE_OPERATION_ROW) {
    return {4096, 8192};
  }
  if (scanlineOperation == KVTI_SCANLINE_OPERATION_COL) {
    return {2048, 3072};
  }
  if (scanlineOperation != KVTI_SCANLINE_OPERATION_ROWCOL) {
    return {};
  }
  struct Shape {
    double ratioBelow;
    std::uint64_t longSide;
    std::uint64_t shortSide;
  };
  // The more elongated the image, the more elongated its tiles.
  constexpr std::array<Shape, 4> kShapes{{{1.5, 3072, 3072}, {3.0, 4096, 2048}, {6.0, 4096, 1024}, {10.0, 3072, 384}}};
  Shape shape{std::numeric_limits<double>::infinity(), 4096, 256};
  const bool tall = width < height;
  const double longSide = tall ? height : width;
  const double shortSide = tall ? width : height;
  for (const Shape& candidate : kShapes) {
    if (longSide / shortSide < candidate.ratioBelow) {
      shape = candidate;
      break;
    }
  }
  return tall ? BaseSize{shape.shortSide, shape.longSide} : BaseSize{shape.longSide, shape.shortSide};
}

TileGrid::TileGrid(const PixelFormat& format, std::uint32_t width, std::uint32_t height, BaseSize base,
                   std::uint64_t granularity)
    : tileBaseWidth_(base.width),
      tileBaseHeight_(base.height),
      tileRowCount_(ceilDivide(height, base.height)),
      tileColCount_(ceilDivide(width, base.width)),
      lastColumnValidWidth_(lastTileSize(width, base.width)),
      lastRowHeight_(lastTileSize(height, base.height)) {
  const std::uint64_t lastWidth = roundUp(lastColumnValidWidth_, kWidthAlignment);
  const auto bytes = [&](std::uint64_t tileWidth, std::uint64_t tileHeight) {
    return roundUp(tileWidth * tileHeight * format.bitsPerSample * format.samplesPerPixel / 8, granularity);
  };
  byteSizes_.rows = tileRowCount_;
  byteSizes_.columns = tileColCount_;
  byteSizes_.corner = bytes(lastWidth, lastRowHeight_);
  // Sizes that no tile has are left 0: a whole base tile may be larger than an image whose bits just fit 64 bits.
  if (tileRowCount_ > 1) {
    byteSizes_.lastColumn = bytes(lastWidth, tileBaseHeight_);
  }
  if (tileColCount_ > 1) {
    byteSizes_.lastRow = bytes(tileBaseWidth_, lastRowHeight_);
  }
  if (tileRowCount_ > 1 && tileColCount_ > 1) {
    byteSizes_.inner = bytes(tileBaseWidth_, tileBaseHeight_);
  }
}

TileGeometry TileGrid::geometry(std::uint64_t row, std::uint64_t column) const {
  const bool lastColumn = column + 1 == tileColCount_;
  return {lastColumn ? roundUp(lastColumnValidWidth_, kWidthAlignment) : tileBaseWidth_,
          row + 1 == tileRowCount_ ? lastRowHeight_ : tileBaseHeight_,
          lastColumn || row > 0 ? lastColumnValidWidth_ : 0};
}

storage::TileArea TileGrid::tilesCovering(std::uint32_t x1, std::uint32_t x2, std::uint32_t y1,
                                          std::uint32_t y2) const {
  return {x1 / tileBaseWidth_, ceilDivide(x2, tileBaseWidth_), y1 / tileBaseHeight_, ceilDivide(y2, tileBaseHeight_)};
}

}  // namespace core
