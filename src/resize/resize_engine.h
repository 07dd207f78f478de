// A rectangle of an image into the whole of another image.
#pragma once

#include <cstdint>

#include "core/tile_image.h"
#include "resize/scanline_resize_engine.h"

namespace resize {

// How destination rows are shared out between threads: section i of `threadCount` ends before row
// (i + 1) * rowsPerSection, the last one at the end of the image.
struct Sections {
  std::uint32_t threadCount = 1;
  std::uint32_t rowsPerSection = 0;

  // For an image of `dstHeight` rows, 1 or more, and `processors`, 1 or more. Sections are multiples of 1024 rows and
  // at least 2048; a rest of up to 512 rows goes to the last section instead of a thread of its own.
  static Sections of(std::uint32_t dstHeight, std::uint32_t processors);

  std::uint32_t endRow(std::uint32_t section, std::uint32_t dstHeight) const {
    return section + 1 == threadCount ? dstHeight : (section + 1) * rowsPerSection;
  }
};

class ResizeEngine {
 public:
  // Writes `source` of `srcImage`, rescaled with the kernel `filter`, into all of `dstImage`, which has the same
  // format. Large images take several threads, which are gone when it returns. False, with a logged reason, for what
  // ScanlineResizeEngine refuses and where a row cannot be read or written; the destination is partly written then.
  static bool scale(core::TileImage& srcImage, const Rectangle& source, core::TileImage& dstImage,
                    std::uint32_t filter);

  // Whether the samples and rows of a rectangle are enough for several threads.
  static bool usesThreads(const core::PixelFormat& format, const Rectangle& source);
};

}  // namespace resize
