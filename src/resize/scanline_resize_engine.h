// A rectangle of an image in another size, one destination row at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "core/tile_image.h"
#include "resize/direct_sum.h"
#include "resize/filters.h"
#include "resize/sampler.h"
#include "resize/scanlines_cache.h"

namespace resize {

// Pixels [x1, x2) of rows [y1, y2).
struct Rectangle {
  std::uint32_t x1 = 0;
  std::uint32_t y1 = 0;
  std::uint32_t x2 = 0;
  std::uint32_t y2 = 0;

  std::uint32_t width() const { return x2 - x1; }
  std::uint32_t height() const { return y2 - y1; }
};

// For one thread at a time. Engines on one image do not disturb each other.
class ScanlineResizeEngine {
 public:
  // An engine for `source` of `tileImage`, which outlives it, by the size of the result or by its scale: the sizes are
  // then trunc(source size * scale + 0.5). `filter` is a KVTI_FILTER_... code. Null, with a logged reason, for samples
  // of other than 8, 16, 32 and 64 bits, unknown codes, an empty rectangle or one that is wider than the image, a
  // result without pixels or with sides beyond 32 bits, scales that are not finite and above 0, and without memory. A
  // rectangle that is higher than the image is accepted: what reaches below the image fails when it is read.
  static std::shared_ptr<ScanlineResizeEngine> __create(core::TileImage& tileImage, const Rectangle& source,
                                                        std::uint32_t dstWidth, std::uint32_t dstHeight,
                                                        std::uint32_t filter);
  static std::shared_ptr<ScanlineResizeEngine> __create(core::TileImage& tileImage, const Rectangle& source,
                                                        double scaleX, double scaleY, std::uint32_t filter);

  // The same for engines that callers hold; a failure has one more line in the log.
  template <typename Width, typename Height>
  static std::shared_ptr<ScanlineResizeEngine> begin_threadsafe(core::TileImage& tileImage, const Rectangle& source,
                                                                Width width, Height height, std::uint32_t filter) {
    return loggedBegin(__create(tileImage, source, width, height, filter));
  }

  // The kernel with this code. Null, with a logged reason, for other codes. Throws std::bad_alloc.
  static std::unique_ptr<CGenericFilter> createFilter(std::uint32_t code);

  // A new engine that does the same, for another thread. Null, with a logged reason, on failure.
  std::shared_ptr<ScanlineResizeEngine> clone() const;

  // Computes destination row `row` into the buffer that row() shows. False, with a logged reason, for a row at or
  // beyond dstHeight(), for samples that cannot be read, and where a source row cannot be had.
  bool scaleRow(std::uint64_t row);

  // The same for engines that callers hold; a failure has one more line in the log.
  bool scaleRow_threadsafe(std::uint64_t row);

  // The row that was computed last, its samples as in callers' buffers. Overwritten by the next one.
  std::span<std::uint8_t> row() { return dstRow_; }

  std::uint64_t dstWidth() const { return dstWidth_; }
  std::uint64_t dstHeight() const { return dstHeight_; }

 private:
  ScanlineResizeEngine(core::TileImage& tileImage, const Rectangle& source, std::uint64_t dstWidth,
                       std::uint64_t dstHeight, double scaleX, double scaleY, std::uint32_t filter);

  static std::shared_ptr<ScanlineResizeEngine> createInitialized(core::TileImage& tileImage, const Rectangle& source,
                                                                 std::uint64_t dstWidth, std::uint64_t dstHeight,
                                                                 double scaleX, double scaleY, std::uint32_t filter,
                                                                 const char* function);
  static std::shared_ptr<ScanlineResizeEngine> loggedBegin(std::shared_ptr<ScanlineResizeEngine> engine);

  bool postInitialize();
  bool checkArguments() const;
  bool fitsMemory() const;
  bool copyRow(std::uint32_t row);
  bool sumRow(std::uint32_t row);

  core::TileImage& tileImage_;
  Rectangle source_;
  std::uint64_t dstWidth_;
  std::uint64_t dstHeight_;
  double scaleX_;
  double scaleY_;
  std::uint32_t filter_;
  std::shared_ptr<const Sampler> horSampler_;
  std::shared_ptr<const Sampler> verSampler_;
  std::unique_ptr<ScanlinesCache> srcRowScanlinesCache_;
  std::unique_ptr<DirectSum> sum_;  // null where samples cannot be read
  std::vector<std::uint8_t> dstRow_;
};

}  // namespace resize
