#include "core/tile_image.h"

#include <algorithm>
#include <exception>
#include <new>

#include "base/log.h"

namespace core {

using base::ull;

// Tiles between the one whose row is copied and the one whose row is fetched meanwhile: the rows of neighbouring tiles
// are far apart in memory, so the processor does not foresee them.
constexpr std::uint64_t kTilesFetchedAhead = 3;

// Where the next part of a run stands in the caller's buffer. Whole-byte formats are handed the place itself, packed
// ones the buffer's start and the samples to skip, as they may stop inside a byte.
class TileImage::BufferCursor {
 public:
  BufferCursor(const PixelFormat& format, std::uint8_t* buffer, std::uint64_t bufferBytes)
      : format_(format), buffer_(buffer), bufferBytes_(bufferBytes) {}

  std::uint8_t* buffer() const { return buffer_; }

  // Bytes that the next `pixels` pixels may use.
  std::uint64_t bytes(std::uint32_t pixels) const { return format_.packed() ? bufferBytes_ : wholeBytes(pixels); }

  std::uint64_t sampleOffset() const { return sampleOffset_; }

  void advance(std::uint32_t pixels) {
    if (format_.packed()) {
      sampleOffset_ += std::uint64_t{format_.samplesPerPixel} * pixels;
    } else {
      buffer_ += wholeBytes(pixels);
    }
  }

 private:
  std::uint64_t wholeBytes(std::uint32_t pixels) const { return std::uint64_t{format_.bitsPerPixel} * pixels / 8; }

  const PixelFormat& format_;
  std::uint8_t* buffer_;
  std::uint64_t bufferBytes_;
  std::uint64_t sampleOffset_ = 0;
};

std::unique_ptr<TileImage> TileImage::createNormal(const TileImageArguments& arguments) {
  std::unique_ptr<TileImage> image(new (std::nothrow) TileImage);
  if (image == nullptr) {
    return nullptr;
  }
  if (!image->postInitializeNormal(arguments)) {
    base::logger().log(ember_logger::error, "[%s] create failed", "TileImage::createNormal");
    return nullptr;
  }
  return image;
}

bool TileImage::postInitializeNormal(const TileImageArguments& arguments) {
  width_ = arguments.width;
  height_ = arguments.height;
  format_ = {arguments.samplesPerPixel, arguments.bitsPerSample, arguments.samplesPerPixel * arguments.bitsPerSample};
  sampleformat_ = arguments.sampleformat;
  scanlineOperation_ = arguments.scanlineOperation;
  if (!check()) {
    return false;
  }
  try {
    tileManager_ = TileManager::createNormal(*this, arguments.bForceUseFileMapping);
  } catch (const std::exception& exception) {
    base::logger().log(ember_logger::error, "[%s] throw exception:%s!", "TileImage::postInitializeNormal",
                       exception.what());
    return false;
  }
  if (tileManager_ == nullptr) {
    base::logger().log(ember_logger::error, "[%s] create failed!", "TileImage::postInitializeNormal");
    return false;
  }
  return true;
}

bool TileImage::check() const {
  if (std::uint64_t{width_} * height_ * format_.samplesPerPixel * format_.bitsPerSample != 0) {
    return true;
  }
  base::logger().log(ember_logger::error, "[%s] invalid args.width:%u height:%u samplesPerPixel:%u bitsPerSample:%u!",
                     "TileImage::check", width_, height_, format_.samplesPerPixel, format_.bitsPerSample);
  return false;
}

bool TileImage::checkBytes(std::uint32_t pixels, const std::uint8_t* buffer, std::uint64_t bufferBytes,
                           const char* function) const {
  if (buffer != nullptr && bufferBytes >= format_.suitableBytes(pixels)) {
    return true;
  }
  base::logger().log(ember_logger::error, "[%s] checkBytes failed!", function);
  return false;
}

bool TileImage::copyRowData(std::uint32_t y, std::uint32_t x1, std::uint32_t x2, std::uint8_t* buffer,
                            std::uint64_t bufferBytes, Direction direction) {
  constexpr const char* kName = "TileImage::copyRowData";
  if (y >= height_ || x1 >= width_ || x2 > width_ || x1 >= x2) {
    base::logger().log(ember_logger::error,
                       "[%s] y >= height_ || x1 >= width_ || x2 > width_ || x1 >= x2  "
                       "[width:%u height:%u y:%u x1:%u x2:%u]",
                       kName, width_, height_, y, x1, x2);
    return false;
  }
  if (!checkBytes(x2 - x1, buffer, bufferBytes, kName)) {
    return false;
  }
  if (!tileManager_->adjustCache(x1, x2, y, y + 1, direction == Direction::set)) {
    base::logger().log(ember_logger::error, "[%s] adjustCachedTile failed!", kName);
    return false;
  }
  return copyRowTiles(y, x1, x2, BufferCursor(format_, buffer, bufferBytes), direction);
}

bool TileImage::copyRowTiles(std::uint32_t y, std::uint32_t x1, std::uint32_t x2, BufferCursor cursor,
                             Direction direction) {
  const char* const name =
      format_.packed() ? "TileImage::copyRowData_1_2_4BitsPerSample" : "TileImage::copyRowData_8multipleBitsPerSample";
  const TileGrid& grid = tileManager_->grid();
  const std::uint64_t tileRow = y / grid.tileBaseHeight();
  const auto rowInTile = static_cast<std::uint32_t>(y % grid.tileBaseHeight());
  for (std::uint64_t x = x1; x < x2;) {
    const std::uint64_t tileColumn = x / grid.tileBaseWidth();
    const std::uint64_t tileStart = tileColumn * grid.tileBaseWidth();
    const Tile* const tile = tileManager_->tile(tileRow, tileColumn);
    if (tile == nullptr) {
      base::logger().log(ember_logger::error, "[%s] tile is nullptr!", name);
      return false;
    }
    if ((tileColumn + kTilesFetchedAhead) * grid.tileBaseWidth() < x2) {
      tileManager_->tile(tileRow, tileColumn + kTilesFetchedAhead)->prefetchRow(rowInTile);
    }
    const auto begin = static_cast<std::uint32_t>(x - tileStart);
    const auto end = static_cast<std::uint32_t>(std::min(x2 - tileStart, tile->tileWidth()));
    if (!tile->copyRowData(rowInTile, begin, end, cursor.buffer(), cursor.bytes(end - begin), direction,
                           cursor.sampleOffset())) {
      base::logger().log(ember_logger::error,
                         "[%s] tile copyRowData failed! y:%u x1:%u x2:%u tileRowCount:%llu tileColCount:%llu", name, y,
                         x1, x2, ull{grid.tileRowCount()}, ull{grid.tileColCount()});
      return false;
    }
    cursor.advance(end - begin);
    x += end - begin;
  }
  return true;
}

bool TileImage::copyColData(std::uint32_t x, std::uint32_t y1, std::uint32_t y2, std::uint8_t* buffer,
                            std::uint64_t bufferBytes, Direction direction) {
  constexpr const char* kName = "TileImage::copyColData";
  if (x >= width_ || y1 >= height_ || y2 > height_ || y1 >= y2) {
    base::logger().log(ember_logger::error,
                       "[%s] x >= width_ || y1 >= height_ || y2 > height_ || y1 >= y2 "
                       "[width:%u height:%u x:%u y1:%u y2:%u]",
                       kName, width_, height_, x, y1, y2);
    return false;
  }
  if (!checkBytes(y2 - y1, buffer, bufferBytes, kName)) {
    return false;
  }
  if (!tileManager_->adjustCache(x, x + 1, y1, y2, direction == Direction::set)) {
    base::logger().log(ember_logger::error, "[%s] adjustCachedTile failed!", kName);
    return false;
  }
  return copyColTiles(x, y1, y2, BufferCursor(format_, buffer, bufferBytes), direction);
}

bool TileImage::copyColTiles(std::uint32_t x, std::uint32_t y1, std::uint32_t y2, BufferCursor cursor,
                             Direction direction) {
  const char* const name =
      format_.packed() ? "TileImage::copyColData_1_2_4BitsPerSample" : "TileImage::copyColData_8multipleBitsPerSample";
  const TileGrid& grid = tileManager_->grid();
  const std::uint64_t tileColumn = x / grid.tileBaseWidth();
  const auto colInTile = static_cast<std::uint32_t>(x % grid.tileBaseWidth());
  for (std::uint64_t y = y1; y < y2;) {
    const std::uint64_t tileRow = y / grid.tileBaseHeight();
    const std::uint64_t tileTop = tileRow * grid.tileBaseHeight();
    const Tile* const tile = tileManager_->tile(tileRow, tileColumn);
    if (tile == nullptr) {
      base::logger().log(ember_logger::error, "[%s] tile is nullptr!", name);
      return false;
    }
    const auto begin = static_cast<std::uint32_t>(y - tileTop);
    const auto end = static_cast<std::uint32_t>(std::min(y2 - tileTop, tile->tileHeight()));
    if (!tile->copyColData(colInTile, begin, end, cursor.buffer(), cursor.bytes(end - begin), direction,
                           cursor.sampleOffset())) {
      base::logger().log(ember_logger::error,
                         "[%s] tile copyColData failed! x:%u y1:%u y2:%u tileRowCount:%llu tileColCount:%llu", name, x,
                         y1, y2, ull{grid.tileRowCount()}, ull{grid.tileColCount()});
      return false;
    }
    cursor.advance(end - begin);
    y += end - begin;
  }
  return true;
}

}  // namespace core
