#include "resize/scanlines_cache.h"

#include <cstring>
#include <utility>

#include "base/log.h"

namespace resize {

using core::Direction;
using core::TileImage;

Scanline::Scanline(const core::PixelFormat& format, std::uint32_t offset0, std::uint32_t offset1)
    : format_(format), offset0_(offset0), offset1_(offset1), bytes_(format.suitableBytes(offset1 - offset0)) {}

const std::uint8_t* Scanline::pixelAddress(std::uint32_t pixelIndex) const {
  if (pixelIndex < offset0() || pixelIndex >= offset1()) {
    base::logger().log(ember_logger::error, "[%s] pixelIndex < offset0() || pixelIndex >= offset1()!",
                       "Scanline::pixelAddress");
    return nullptr;
  }
  return bytes_.data() + format_.suitableBytes(pixelIndex - offset0());
}

bool Scanline::copy(std::uint32_t begin, std::uint32_t end, std::uint8_t* buffer, std::uint64_t bufferBytes) const {
  if (begin < offset0() || begin >= offset1() || begin >= end || end > offset1()) {
    base::logger().log(ember_logger::error,
                       "[%s] begin < offset0() || begin >= offset1() || begin >= end || end > offset1()!",
                       "Scanline::copy");
    return false;
  }
  const std::uint64_t bytes = format_.suitableBytes(end - begin);
  if (bufferBytes < bytes) {
    return false;
  }
  std::memcpy(buffer, pixelAddress(begin), bytes);
  return true;
}

bool Scanline::read(TileImage& image, std::uint32_t y) {
  return image.copyRowData(y, offset0(), offset1(), bytes_.data(), bytes_.size(), Direction::get);
}

std::unique_ptr<ScanlinesCache> ScanlinesCache::createRowScanlinesCache(TileImage& tileImage, std::uint32_t offset0,
                                                                        std::uint32_t offset1) {
  if (offset0 >= offset1 || offset1 > tileImage.width()) {
    base::logger().log(ember_logger::error, "[%s] offset0 >= offset1 || offset1 > tileImage->width()!",
                       "ScanlinesCache::createRowScanlinesCache");
    return nullptr;
  }
  return std::unique_ptr<ScanlinesCache>(new ScanlinesCache(tileImage, offset0, offset1));
}

bool ScanlinesCache::load(std::uint32_t begin, std::uint32_t end) {
  makeRoomFor(end - begin);
  for (std::uint32_t y = begin; y < end; ++y) {
    Slot& slot = slots_[y % slots_.size()];
    if (slot.filled && slot.y == y) {
      continue;
    }
    slot.filled = slot.scanline.read(tileImage_, y);
    slot.y = y;
    if (!slot.filled) {
      base::logger().log(ember_logger::error, "[%s] getRowData failed!", "ScanlinesCache::load");
      return false;
    }
  }
  return true;
}

// More slots move the rows that are held to other numbers.
void ScanlinesCache::makeRoomFor(std::uint32_t rows) {
  if (rows <= slots_.size()) {
    return;
  }
  std::vector<Slot> slots(rows, Slot{Scanline(tileImage_.format(), offset0_, offset1_)});
  for (Slot& held : slots_) {
    if (held.filled) {
      std::swap(slots[held.y % rows], held);
    }
  }
  slots_ = std::move(slots);
}

}  // namespace resize
