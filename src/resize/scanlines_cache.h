// Rows of a source image, held while destination rows are made of them.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "core/tile_image.h"

namespace resize {

// Pixels [offset0, offset1) of one image row, packed as in callers' buffers; whole-byte formats only.
class Scanline {
 public:
  Scanline(const core::PixelFormat& format, std::uint32_t offset0, std::uint32_t offset1);

  std::uint32_t offset0() const { return offset0_; }
  std::uint32_t offset1() const { return offset1_; }

  // The first byte of a pixel. Null, with a logged reason, for a pixel that the scanline does not hold.
  const std::uint8_t* pixelAddress(std::uint32_t pixelIndex) const;

  // Copies pixels [begin, end) to `buffer`. False, with nothing copied, if `bufferBytes` is too little, and, with a
  // logged reason, for pixels that the scanline does not hold.
  bool copy(std::uint32_t begin, std::uint32_t end, std::uint8_t* buffer, std::uint64_t bufferBytes) const;

  // Reads row `y` of `image`, which the scanline was made for. False, with a logged reason, on failure.
  bool read(core::TileImage& image, std::uint32_t y);

 private:
  core::PixelFormat format_;
  std::uint32_t offset0_;
  std::uint32_t offset1_;
  std::vector<std::uint8_t> bytes_;
};

class ScanlinesCache {
 public:
  // For pixels [offset0, offset1) of rows of `tileImage`, which outlives the cache. Null, with a logged reason, if
  // there are none or some are outside the image. Throws std::bad_alloc.
  static std::unique_ptr<ScanlinesCache> createRowScanlinesCache(core::TileImage& tileImage, std::uint32_t offset0,
                                                                 std::uint32_t offset1);

  // Makes sure that rows [begin, end) are held, and reads those of them that are not. False, with a logged reason,
  // if one cannot be read: rows before it are held then. Throws std::bad_alloc and std::length_error.
  bool load(std::uint32_t begin, std::uint32_t end);

  // A row of those that the last load() asked for.
  const Scanline& row(std::uint32_t y) const { return slots_[y % slots_.size()].scanline; }

 private:
  struct Slot {
    Scanline scanline;
    std::uint32_t y = 0;
    bool filled = false;
  };

  ScanlinesCache(core::TileImage& tileImage, std::uint32_t offset0, std::uint32_t offset1)
      : tileImage_(tileImage), offset0_(offset0), offset1_(offset1) {}

  void makeRoomFor(std::uint32_t rows);

  core::TileImage& tileImage_;
  std::uint32_t offset0_;
  std::uint32_t offset1_;
  std::vector<Slot> slots_;  // row y is in the one with the number y modulo their count
};

}  // namespace resize
