#include "core/tile_image.h"

#include <algorithm>
#include <exception>
#include <new>

#include "base/log.h"
#include "interprocess/tile_image_interprocess_json_helper.h"
#include "platform/utf8.h"

namespace core {

using base::fail;
using base::ull;
using interprocess::InterprocessTileImageInfo;
using interprocess::TileImageInterprocessJsonHelper;

namespace {

bool failWithException(const char* function, const std::exception& exception) {
  base::logger().log(ember_logger::error, "[%s] throw exception:%s!", function, exception.what());
  return false;
}

}  // namespace

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
  setFormat(arguments.width, arguments.height, arguments.samplesPerPixel, arguments.bitsPerSample);
  sampleformat_ = arguments.sampleformat;
  scanlineOperation_ = arguments.scanlineOperation;
  if (!check()) {
    return false;
  }
  return createTileManager("TileImage::postInitializeNormal",
                           [&] { return TileManager::createNormal(*this, arguments.bForceUseFileMapping); });
}

template <class CreateManager>
bool TileImage::createTileManager(const char* function, CreateManager create) {
  try {
    tileManager_ = create();
  } catch (const std::exception& exception) {
    return failWithException(function, exception);
  }
  return tileManager_ != nullptr || fail("[%s] create failed!", function);
}

void TileImage::setFormat(std::uint32_t width, std::uint32_t height, std::uint32_t samplesPerPixel,
                          std::uint32_t bitsPerSample) {
  width_ = width;
  height_ = height;
  format_ = {samplesPerPixel, bitsPerSample, samplesPerPixel * bitsPerSample};
}

std::unique_ptr<TileImage> TileImage::createInterprocessA(const SharedTileImageArguments& arguments) {
  constexpr const char* kName = "TileImage::createInterprocessA";
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t samplesPerPixel = 0;
  std::uint32_t bitsPerSample = 0;
  std::uint32_t sampleformat = 0xFFFFFFFF;
  if (getTileImageBriefInfo_InterprocessB(arguments.interprocessTileImageId, &width, &height, &samplesPerPixel,
                                          &bitsPerSample, &sampleformat)) {
    if (width == arguments.width && height == arguments.height && samplesPerPixel == arguments.samplesPerPixel &&
        bitsPerSample == arguments.bitsPerSample && sampleformat == arguments.sampleformat) {
      if (auto image = createInterprocessB(arguments.interprocessTileImageId)) {
        return image;
      }
      base::logger().log(ember_logger::warning, "[%s] files of FileMapping is missing,will create a fresh tileImage",
                         kName);
    } else {
      base::logger().log(ember_logger::warning,
                         "[%s] interprocessTileImageId file is invalid [possible reason: interprocessTileImageId(%s) "
                         "is not unique]",
                         kName, platform::shownUtf8(arguments.interprocessTileImageId).c_str());
    }
  }
  std::unique_ptr<TileImage> image(new (std::nothrow) TileImage);
  if (image == nullptr || !image->postInitializeInterprocessA(arguments)) {
    fail("[%s] create failed", kName);
    return nullptr;
  }
  return image;
}

bool TileImage::postInitializeInterprocessA(const SharedTileImageArguments& arguments) {
  constexpr const char* kName = "TileImage::postInitializeInterprocessA";
  setFormat(arguments.width, arguments.height, arguments.samplesPerPixel, arguments.bitsPerSample);
  sampleformat_ = arguments.sampleformat;
  scanlineOperation_ = arguments.scanlineOperation;
  if (!checkShared()) {
    return false;
  }
  try {
    interprocessInfo_ = std::make_shared<InterprocessTileImageInfo>();
    if (!createTileManager(kName, [&] {
          return TileManager::createInterprocessA(*this, *interprocessInfo_, arguments.interprocessTileImageId);
        })) {
      return false;
    }
    if (!TileImageInterprocessJsonHelper(arguments.interprocessTileImageId).serialize(*interprocessInfo_)) {
      return fail("[%s] jsonHelper serialize failed", kName);
    }
    interprocessInfo_->interprocessFileMappingInfo->described = true;
    return true;
  } catch (const std::exception& exception) {
    return failWithException(kName, exception);
  }
}

std::unique_ptr<TileImage> TileImage::createInterprocessB(const std::wstring& identifier) {
  std::unique_ptr<TileImage> image(new (std::nothrow) TileImage);
  if (image == nullptr || !image->postInitializeInterprocessB(identifier)) {
    fail("[%s] create failed", "TileImage::createInterprocessB");
    return nullptr;
  }
  return image;
}

bool TileImage::postInitializeInterprocessB(const std::wstring& identifier) {
  constexpr const char* kName = "TileImage::postInitializeInterprocessB";
  try {
    interprocessInfo_ = std::make_shared<InterprocessTileImageInfo>();
    if (!TileImageInterprocessJsonHelper(identifier).unserialize(*interprocessInfo_, false)) {
      return fail("[%s] jsonHelper serialize failed", kName);  // kept: one text for both directions
    }
    const InterprocessTileImageInfo& info = *interprocessInfo_;
    info.interprocessFileMappingInfo->described = true;
    setFormat(info.width, info.height, info.samplesPerPixel, info.bitsPerSample);
    sampleformat_ = static_cast<std::uint32_t>(info.sampleformat);
    scanlineOperation_ = static_cast<std::uint32_t>(info.scanlineOperation);
    return checkShared() &&
           createTileManager(kName, [&] { return TileManager::createInterprocessB(*this, info, identifier); });
  } catch (const std::exception& exception) {
    return failWithException(kName, exception);
  }
}

bool TileImage::isValid(const std::wstring& identifier) {
  return createInterprocessB(identifier) != nullptr ||
         fail("[%s] files of FileMapping is missing", "TileImage::isValid");
}

bool TileImage::getTileImageBriefInfo_InterprocessB(const std::wstring& identifier, std::uint32_t* width,
                                                    std::uint32_t* height, std::uint32_t* samplesPerPixel,
                                                    std::uint32_t* bitsPerSample, std::uint32_t* sampleformat) {
  constexpr const char* kName = "TileImage::getTileImageBriefInfo_InterprocessB";
  try {
    InterprocessTileImageInfo info;
    if (!TileImageInterprocessJsonHelper(identifier).unserialize(info, true)) {
      return fail("[%s] jsonHelper serialize failed", kName);
    }
    const auto store = [](std::uint32_t* target, std::uint32_t value) {
      if (target != nullptr) {
        *target = value;
      }
    };
    store(width, info.width);
    store(height, info.height);
    store(samplesPerPixel, info.samplesPerPixel);
    store(bitsPerSample, info.bitsPerSample);
    store(sampleformat, static_cast<std::uint32_t>(info.sampleformat));
    return true;
  } catch (const std::exception& exception) {
    return failWithException(kName, exception);
  }
}

bool TileImage::check() const {
  return std::uint64_t{width_} * height_ * format_.samplesPerPixel * format_.bitsPerSample != 0 || refuseSizes();
}

// Kept: the product in 32 bits. Sizes whose product is a multiple of 2^32, like 65536 x 65536, cannot be shared.
bool TileImage::checkShared() const {
  if (width_ * height_ * format_.samplesPerPixel * format_.bitsPerSample != 0) {
    return true;
  }
  if (check()) {
    base::logger().log(ember_logger::error,
                       "[%s] the bits of a shared image must not be a multiple of 2^32: make it a row longer",
                       "TileImage::checkShared");
    return refuseSizes();
  }
  return false;
}

bool TileImage::refuseSizes() const {
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
